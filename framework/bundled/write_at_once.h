#pragma once

#include <cstddef>
#include <string_view>

/// Writes what a descriptor takes at once, in one call, whatever it is: a file, a socket, a pipe, a
/// terminal. Does not wait, however full that is, with one exception: a pipe or terminal that the
/// kernel cannot write to without waiting (pwritev2(2)), and that cannot be opened again, is looked
/// at for room first; the write may wait when somebody else takes that room before it. Does not
/// raise SIGPIPE. The flags of the open file description, which others may share, stay as they are.
/// @param bytes  4096 at most: a pipe then takes all of them or none
/// @return how many were written; 0 also on an error
/// Threads: any, several at once; also from a signal handler. Allocates nothing.
std::size_t writeAtOnce(int fd, std::string_view bytes);
