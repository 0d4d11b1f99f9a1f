#pragma once

#include <chrono>
#include <string>
#include <vector>

struct screen; // ncurses's

/// The whole terminal, from begin to end of the object's life: keys come one by one and are not
/// shown, and what stood there before is back afterwards. There is one at a time.
/// Threads: one.
class FullScreen {
public:
    /// What wait() has seen.
    enum class Seen {
        nothing, ///< the time is over, or a signal has come
        resize,  ///< the terminal has another size
        leave,   ///< the user wants to leave, or can type nothing any more
    };

    /// @throws CtlError  nothing is known of the terminal that TERM names
    FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;
    ~FullScreen();

    std::size_t columns() const;
    std::size_t rows() const;

    /// Shows lines from the top, the first one in bold, and nothing below them. What does not fit
    /// is left out.
    void show(const std::vector<std::string>& lines) const;

    /// Waits for keys, for that long at most: q, Q, Esc and Ctrl-D leave.
    Seen wait(std::chrono::milliseconds most) const;

private:
    screen* const screen_;
};
