#include "ports/port_com2.h"

#include <fcntl.h>
#include <new>
#include <stdexcept>
#include <unistd.h>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "connections/com2_conn.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"

namespace {

constexpr cc_t ctrl(char letter)
{
    return static_cast<cc_t>(letter & 0x1F);
}

/// Backspace erases a character (not DEL). Ctrl-W is set for the word and for the line
/// (deliberate); Linux then takes it for the word.
termios lineSettings()
{
    termios tio{};
    tio.c_iflag = IGNPAR | ICRNL | IXOFF;
    tio.c_oflag = OPOST;
    tio.c_cflag = CS8 | CREAD | CLOCAL;
    tio.c_lflag = ICANON;
    // Every line knows this speed, so that neither fails.
    (void)::cfsetispeed(&tio, B38400);
    (void)::cfsetospeed(&tio, B38400);
    tio.c_cc[VINTR] = ctrl('C');
    tio.c_cc[VQUIT] = ctrl('\\');
    tio.c_cc[VERASE] = ctrl('H');
    tio.c_cc[VKILL] = ctrl('W');
    tio.c_cc[VEOF] = ctrl('D');
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VWERASE] = ctrl('W');
    tio.c_cc[VREPRINT] = ctrl('R');
    tio.c_cc[VSUSP] = ctrl('Z');
    tio.c_cc[VSTART] = ctrl('Q');
    tio.c_cc[VSTOP] = ctrl('S');
    tio.c_cc[VLNEXT] = ctrl('V');
    tio.c_cc[VDISCARD] = ctrl('U');
    tio.c_cc[27] = ctrl('X'); // no name, and no effect on Linux
    return tio;
}

} // namespace

TPortCom2::TPortCom2() : TCmdPort(PORT_COM2, 1, 0x0055'0000)
{
    setMilestone(Milestone::com2ConstructorBegun);
    wantsInput = false; // what is typed is for its connection
    standing = true;
    isOpen = TPortCom2::openPort() == 0;
    setMilestone(Milestone::com2ConstructorDone);
}

TPortCom2::~TPortCom2()
{
    (void)TPortCom2::closePort(); // always 0
}

int TPortCom2::openPort()
{
    setMilestone(Milestone::com2OpenBegun);
    // Non-blocking, because not even the opening may wait for the line.
    fd = ::open(COM2_DEVICE, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return 1;
    if (::tcgetattr(fd, &savedTio) != 0) throw std::runtime_error("unable to get COM2 attributes");
    portTio = lineSettings();
    if (::tcflush(fd, TCIFLUSH) != 0) throw std::runtime_error("failed tcflush");
    if (::tcsetattr(fd, TCSANOW, &portTio) != 0) throw std::runtime_error("failed setting COM2 attributes");
    setMilestone(Milestone::com2OpenDone);
    return 0;
}

int TPortCom2::closePort()
{
    setMilestone(Milestone::com2CloseBegun);
    if (isOpen && !g_isCopy) {
        // A line that refuses has been unplugged: nothing is left to restore.
        (void)::tcflush(fd, TCIFLUSH);
        (void)::tcsetattr(fd, TCSANOW, &savedTio);
    }
    if (closeEndpoint()) logMessage(port_log::com2PortClosed);
    setMilestone(Milestone::com2CloseDone);
    return 0;
}

int TPortCom2::chkNewConn(TPortConn** newConn)
try {
    setMilestone(Milestone::com2CheckBegun);
    due = NEVER;
    const bool isFree = activeConns < maxConns;
    if (isFree) {
        *newConn = addConn(makeConn<TCom2Conn>, fd);
        logMessage(port_log::com2Opened, Hex{announcedConnId()});
    }
    setMilestone(Milestone::com2CheckDone);
    return isFree ? 1 : 0;
} catch (const std::bad_alloc&) {
    return 0; // a free port is asked again and again
}

int TPortCom2::closeConn(TPortConn** conn)
{
    setMilestone(Milestone::com2CloseConnBegun);
    if (dispose(conn)) logMessage(port_log::com2Closed);
    setMilestone(Milestone::com2CloseConnDone);
    return 0;
}
