#include "tools/tessctl/full_screen.h"

#include <iostream>
#include <unistd.h>

namespace {

constexpr const char* OTHER_SCREEN = "\x1b[?1049h\x1b[?25l"; // and no cursor
constexpr const char* SCREEN_BACK = "\x1b[?25h\x1b[?1049l";
constexpr const char* TOP_LEFT = "\x1b[H";
constexpr const char* LINE_END = "\x1b[K\n"; // nothing is left of a longer line
constexpr const char* REST_OF_SCREEN = "\x1b[J";

} // namespace

FullScreen::FullScreen() : isKeyboard_(::tcgetattr(STDIN_FILENO, &before_) == 0)
{
    termios raw = before_;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    if (isKeyboard_) (void)::tcsetattr(STDIN_FILENO, TCSANOW, &raw); // else keys need Enter
    std::cout << OTHER_SCREEN << std::flush;
}

FullScreen::~FullScreen()
{
    std::cout << SCREEN_BACK << std::flush;
    if (isKeyboard_) (void)::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
}

void FullScreen::show(const std::vector<std::string>& lines) const
{
    std::string text = TOP_LEFT;
    for (std::size_t i = 0; i < lines.size(); ++i)
        text += lines[i] + (i + 1 < lines.size() ? LINE_END : "\x1b[K");
    std::cout << text << REST_OF_SCREEN << std::flush;
}
