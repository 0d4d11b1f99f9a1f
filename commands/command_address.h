#pragma once

#include <cstddef>
#include <string_view>

/// Bytes for a field of a command address, its NUL included.
inline constexpr std::size_t ADDRESS_FIELD_BYTES = 256;

/// The two fields of the address in front of a command, NUL-terminated; a longer field is cut.
struct CommandAddress {
    char unitAddr[ADDRESS_FIELD_BYTES];
    char procAddr[ADDRESS_FIELD_BYTES];
};

/// Results of parseCmdAddress() that are no offset.
inline constexpr int ADDRESS_REJECTED = 0;
inline constexpr int ADDRESS_WHOLE_TEXT = 1;

/// Splits `unit.process command` at the front of one command token. A token without an address is a
/// broadcast: "*", "*". A token that begins with "$GPRMC" is addressed to "GPSD".
/// @param text     trimmed token; white space in front is skipped and not counted
/// @param address  receives both fields, empty where the token has none
/// @return 0 rejected; 1 the body is the whole text; above 1 the offset at which the body begins
int parseCmdAddress(std::string_view text, CommandAddress& address);
