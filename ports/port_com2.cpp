#include "ports/port_com2.h"

#include <fcntl.h>
#include <stdexcept>
#include <unistd.h>

#include "common/milestone.h"
#include "common/process_copy.h"
#include "connections/com2_conn.h"
#include "framework/fixed_text.h"
#include "framework/tess_messages.h"
#include "ports/port_log.h"

namespace {

constexpr cc_t ctrl(char letter)
{
    return static_cast<cc_t>(letter & 0x1F);
}

/// Backspace erases a character (not DEL). Ctrl-W is set for the word and for the line (deliberate); Linux then takes it
/// for the word.
termios lineSettings()
{
    termios tio{};
    tio.c_iflag = IGNPAR | ICRNL | IXOFF;
    tio.c_oflag = OPOST;
    tio.c_cflag = CS8 | CREAD | CLOCAL;
    tio.c_lflag = ICANON;
    (void)::cfsetispeed(&tio, B38400); // which put it where it belongs; it is a speed that every line knows
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
    setMilestone(1000);
    wantsInput = false; // what is typed is for its connection
    standing = true;
    isOpen = TPortCom2::openPort() == 0;
    setMilestone(1001);
}

TPortCom2::~TPortCom2()
{
    (void)TPortCom2::closePort(); // always 0
}

int TPortCom2::openPort()
{
    setMilestone(1002);
    // Non-blocking: nothing waits for the line, the opening neither.
    fd = ::open(COM2_DEVICE, O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return 1;
    if (::tcgetattr(fd, &savedTio) != 0) throw std::runtime_error("unable to get COM2 attributes");
    portTio = lineSettings();
    if (::tcflush(fd, TCIFLUSH) != 0) throw std::runtime_error("failed tcflush");
    if (::tcsetattr(fd, TCSANOW, &portTio) != 0) throw std::runtime_error("failed setting COM2 attributes");
    setMilestone(1003);
    return 0;
}

int TPortCom2::closePort()
{
    setMilestone(1004);
    if (isOpen) {
        if (!g_isCopy) {
            // A line that refuses has been unplugged: nothing is left to restore.
            (void)::tcflush(fd, TCIFLUSH);
            (void)::tcsetattr(fd, TCSANOW, &savedTio);
        }
        (void)::close(fd);
        activeConns = 0;
        isOpen = false;
        logMessage(port_log::com2PortClosed);
    }
    setMilestone(1005);
    return 0;
}

int TPortCom2::chkNewConn(TPortConn** newConn)
{
    setMilestone(1006);
    due = NEVER;
    const bool isFree = activeConns < maxConns;
    if (isFree) {
        *newConn = new TCom2Conn(portType, countNewConn());
        (*newConn)->fd = fd;
        const LogMessage& opened = port_log::com2Opened;
        logMgr.log(opened.id, (FixedText<96>() << opened.text).hex(announcedConnId()).c_str());
    }
    setMilestone(1007);
    return isFree ? 1 : 0;
}

int TPortCom2::closeConn(TPortConn** conn)
{
    setMilestone(1008);
    if (*conn != nullptr) {
        delete *conn;
        *conn = nullptr;
        activeConns -= 1;
        logMessage(port_log::com2Closed);
    }
    setMilestone(1009);
    return 0;
}
