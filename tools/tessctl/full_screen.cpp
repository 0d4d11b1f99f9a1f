#include "tools/tessctl/full_screen.h"

#include <cstdlib>
#include <poll.h>
#include <unistd.h>

#define NCURSES_NOMACROS // its functions do as well
#include <curses.h>

#include "tools/tessctl/exit_status.h"

namespace {

constexpr int ESCAPE = 0x1b;
constexpr int END_OF_INPUT = 0x04; // Ctrl-D

std::string terminalName()
{
    const char* const name = std::getenv("TERM");
    return name != nullptr ? name : "";
}

screen* newScreen()
{
    screen* const made = ::newterm(nullptr, stdout, stdin);
    if (made != nullptr) return made;
    throw CtlError(STATUS_REFUSED, "cannot draw on this terminal, TERM is '" + terminalName() +
                                       "': set it, or print one screen with 'tessctl top | cat'");
}

bool isLeaving(int key)
{
    return key == 'q' || key == 'Q' || key == ESCAPE || key == END_OF_INPUT;
}

} // namespace

FullScreen::FullScreen() : screen_(newScreen())
{
    (void)::cbreak();
    (void)::noecho();
    (void)::curs_set(0);
    (void)::keypad(stdscr, true); // an arrow key is one key, and no Esc
    (void)::nodelay(stdscr, true);
    (void)::set_escdelay(50);
}

FullScreen::~FullScreen()
{
    (void)::endwin();
    ::delscreen(screen_);
}

std::size_t FullScreen::columns() const
{
    return static_cast<std::size_t>(::getmaxx(stdscr));
}

std::size_t FullScreen::rows() const
{
    return static_cast<std::size_t>(::getmaxy(stdscr));
}

void FullScreen::show(const std::vector<std::string>& lines) const
{
    (void)::erase();
    int row = 0;
    for (const std::string& line : lines) {
        (void)::attrset(row == 0 ? A_BOLD : A_NORMAL);
        (void)::mvaddnstr(row++, 0, line.c_str(), ::getmaxx(stdscr));
    }
    (void)::refresh();
}

FullScreen::Seen FullScreen::wait(std::chrono::milliseconds most) const
{
    pollfd input{STDIN_FILENO, POLLIN, 0};
    const bool isReady = ::poll(&input, 1, static_cast<int>(most.count())) > 0;
    int key = ::getch();                                          // after a signal that tells of a new size, too
    if (key == ERR) return isReady ? Seen::leave : Seen::nothing; // nobody can type any more
    Seen seen = Seen::nothing;
    for (; key != ERR; key = ::getch()) {
        if (isLeaving(key)) return Seen::leave;
        if (key == KEY_RESIZE) seen = Seen::resize;
    }
    return seen;
}
