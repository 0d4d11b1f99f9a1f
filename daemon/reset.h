#pragma once

/// Restarts the device 5 seconds from now, from a child process; until then the caller goes on.
/// @param line  RESET command line: one word; or three words, RESET, REINIT (in any case) and this host's name, which
///              re-initialise the installed software first (that may take long)
/// @return 0 started; 1 refused, or failed (logged). When the restart itself fails, 1 is returned a second time, in the
///         child, which goes on as a second copy of the daemon (deliberate)
int resetDevice(const char* line) noexcept;
