#pragma once

#include <string>
#include <string_view>

/// A blocking connection to a socket file.
/// @return negative with errno set when there is none
int connectTo(const char* path);

/// Writes everything; ends the program when the peer is gone.
void writeAll(int fd, std::string_view bytes);

/// Waits for more, and appends it.
/// @return false when the peer is gone
bool readSome(int fd, std::string& to);

/// Says what has failed, and why, and ends the program.
[[noreturn]] void giveUp(const std::string& what);
