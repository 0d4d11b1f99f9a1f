#pragma once

#include <termios.h>

#include "ports/cmd_port.h"

/// The port for the second serial line, COM2_DEVICE: 38400 baud, 8N1, line input, no echo. It keeps
/// one connection on the open device at all times. Owns: the device; its connection only borrows
/// the descriptor.
class TPortCom2 final : public TCmdPort {
public:
    /// @throws std::runtime_error "unable to get COM2 attributes", "failed tcflush", "failed
    ///         setting COM2 attributes"
    TPortCom2();
    ~TPortCom2() override;

    /// As TCmdPort::openPort(); 1 also when the device is missing or busy.
    int openPort() override;

    /// As TCmdPort::closePort(); the line gets back the settings that openPort() found, except from
    /// a copy of the daemon.
    int closePort() override;

    /// As TCmdPort::chkNewConn(), but nothing is accepted: a new connection is handed out whenever
    /// there is none: at the start, and after each closeConn(). The port waits for no input.
    int chkNewConn(TPortConn** newConn) override;
    int closeConn(TPortConn** conn) override;

    termios savedTio{}; ///< as found
    termios portTio{};  ///< as set
};
