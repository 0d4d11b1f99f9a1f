#pragma once

#include <string>
#include <termios.h>
#include <vector>

/// The whole terminal, from begin to end of the object's life: keys come one by one and are not
/// shown, and what stood there before is back afterwards.
/// Threads: one.
class FullScreen {
public:
    FullScreen();
    FullScreen(const FullScreen&) = delete;
    FullScreen& operator=(const FullScreen&) = delete;
    ~FullScreen();

    /// Shows lines from the top, and nothing below them. They must fit.
    void show(const std::vector<std::string>& lines) const;

private:
    termios before_{};
    bool isKeyboard_;
};
