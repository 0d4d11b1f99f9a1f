#pragma once

#include <mutex>

#include "connections/line_output.h"
#include "connections/port_conn.h"

/// The one conversation on the serial line COM2. Its line discipline is canonical: one read is one
/// line (termios(3)). Does not own its descriptor, which must be non-blocking: the port does, and
/// hands it to the next connection. Owns: what is on its way out of the line.
class TCom2Conn : public TPortConn {
public:
    static constexpr timeval MUTE_TIME{2, 0};

    TCom2Conn(std::uint32_t portType, std::uint32_t id);
    /// While the line is muted, throws away what has arrived.
    ~TCom2Conn() override;

    /// As TPortConn::readCmd(), but never reports that the peer has closed. While the line is
    /// muted, and once more at the mute's end, which is `due`, everything that has arrived is
    /// thrown away. A last piece without a line end runs on into what an earlier, longer line has
    /// left behind it (deliberate).
    int readCmd() override;
    /// As TPortConn::write(); what the line does not take at once is kept in `output`.
    /// @return 0 sent or kept, 1 refused
    int write(TOrbAttachmentMsg* msg) override;
    int hasTimedOut() override { return 0; }
    void setEcho(int /*on*/) override {}
    int isSerialLine() override { return 1; }
    /// As TPortConn::startMute(); sets `due`, so the service loop must not be looking at it
    /// meanwhile.
    int startMute() override;
    int muteExpired() override;
    std::uint32_t getPortId() override { return portId; }

    /// Switches canonical input on or off, at once.
    /// @return 0, or 1 when the line refuses
    int setCanonical(int on);

private:
    bool throwsAway();
    int readLines();
    void readAndDiscard();

    std::mutex muteLock; ///< guards muteTimer and muteEnd_
    TOrbHRTimeOut muteTimer;
    /// When the mute ends. NEVER: not muted, and what came during the last mute has been discarded.
    Instant muteEnd_ = NEVER;
    int emptyReads_ = 0; ///< reads in a row that gave nothing although something was reported
    LineOutput output_;
};
