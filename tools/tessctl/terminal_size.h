#pragma once

#include <cstddef>
#include <sys/ioctl.h>
#include <unistd.h>

struct TerminalSize {
    std::size_t columns = 0; ///< 0: not a terminal, or it does not tell
    std::size_t rows = 0;
};

/// The size of the terminal that standard output is.
inline TerminalSize terminalSize()
{
    winsize size{};
    if (::isatty(STDOUT_FILENO) == 0 || ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return {};
    return {size.ws_col, size.ws_row};
}
