#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "framework/orb_attachment_msg.h"

/// The text of a record; one without a NUL ends at the record's end.
std::string_view textOf(const TOrbAttachmentMsg& record);

/// A text in double quotes, with what cannot be printed as C writes it ("SETX 5\n").
std::string inQuotes(std::string_view text);

/// A record in one line: kind, sender, tag, len and text.
/// @param bytes  how many of it were received, 16 at least
std::string describe(const TOrbAttachmentMsg& record, std::size_t bytes);

/// The bytes of a record as they lie in memory, sixteen a line, each line with its offset and an
/// end.
std::string hexDump(const TOrbAttachmentMsg& record, std::size_t bytes);
