#pragma once

#include <mutex>

#include "connections/port_conn.h"

/// The one conversation on the serial line COM2. Its line discipline is canonical: one read is one line (termios(3)).
/// Does not own its descriptor: the port does, and hands it to the next connection.
class TCom2Conn : public TPortConn {
public:
    static constexpr timeval MUTE_TIME{2, 0};

    TCom2Conn(std::uint32_t portType, std::uint32_t id);

    /// As TPortConn::readCmd(), but never reports that the peer has closed. While the line is muted everything that arrives
    /// is thrown away. A last piece without a line end runs on into what an earlier, longer line has left behind it
    /// (deliberate).
    int readCmd() override;
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return 0; }
    void setEcho(int /*on*/) override {}
    int isSerialLine() override { return 1; }
    int startMute() override;
    int muteExpired() override;
    std::uint32_t getPortId() override { return portId; }

    /// Switches canonical input on or off, at once.
    /// @return 0, or 1 when the line refuses
    int setCanonical(int on);

private:
    int readLines();
    void readAndDiscard();
    void noteRead();

    std::mutex muteLock; ///< guards muteTimer
    TOrbHRTimeOut muteTimer;
    int emptyReads_ = 0; ///< reads in a row that gave nothing although something was reported
};
