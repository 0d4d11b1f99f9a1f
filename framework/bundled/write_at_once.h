#pragma once

#include <cstddef>
#include <string_view>

/// Writes what a descriptor takes at once, in one call, whatever it is: a file, a socket, a pipe, a
/// terminal. It does not wait, however full that is, and does not raise SIGPIPE; the open file
/// description that others share stays as it is.
/// @param bytes  at most 4096: into a pipe then go all of them or none
/// @return how many were written
/// Threads: any, several at once; also from a signal handler. Allocates nothing.
std::size_t writeAtOnce(int fd, std::string_view bytes);
