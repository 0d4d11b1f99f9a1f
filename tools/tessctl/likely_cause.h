#pragma once

#include <string>
#include <string_view>

/// What a path belongs to.
enum class PathOf { queueDirectory, daemonQueue, ownQueue, localSocket, telnet, serialLine };

/// What is wrong with a path, in words: the path, the system's reason and, where one is known, the
/// likely cause ("/run/tess/queue/1001: No such file or directory: is tessd running?").
/// @param error  an errno(3) value
std::string failureText(std::string_view path, int error, PathOf what);
