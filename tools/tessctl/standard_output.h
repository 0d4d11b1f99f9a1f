#pragma once

/// Standard output, whose loss must not look like success.

/// Makes sure that 0, 1 and 2 are open. A closed one would be given to the next file or socket that
/// is opened, and what is printed would go there; now writing to it, or reading from it, fails as
/// on a closed one.
void keepStandardDescriptors();

/// Hands what was printed to the system.
/// @return 0, else why some of it is lost, as errno has it
int flushOutput();

/// As flushOutput().
/// @throws CtlError  some of it is lost
void requireOutput();

/// Whether nobody reads it any more, as in "tessctl listen | head -1".
bool outputIsUnread();

/// Says that some of it is lost.
/// @param error  as flushOutput() returns it
/// @throws CtlError  always
[[noreturn]] void failOutput(int error);
