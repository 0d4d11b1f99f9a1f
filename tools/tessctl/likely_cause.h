#pragma once

#include <string>
#include <string_view>

/// What is wrong with a path, in words: the path, the system's reason and, where one is known, the
/// likely cause ("/run/tess/queue/1001: No such file or directory: is tessd running?").
/// @param error  as errno has it
/// @param what   what the path belongs to
enum class PathOf { queueDirectory, daemonQueue, ownQueue, localSocket, telnet, serialLine };
std::string failureText(std::string_view path, int error, PathOf what);
