#pragma once

#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "connections/line_output.h"
#include "connections/port_conn.h"

/// What fakes of one test have done, in order.
using Events = std::vector<std::string>;

/// A connection that yields what a test puts in and keeps what is written to it. It is due at once,
/// again and again, unless a test sets `due`.
class FakeConn : public TPortConn {
public:
    /// @param events  gets "NAME gone" at the end of the connection; may be null
    FakeConn(std::uint32_t portType, std::uint32_t id, std::string name = {}, Events* events = nullptr)
        : TPortConn(portType, id), name_(std::move(name)), events_(events)
    {
        loginState = LOGIN_DONE;
    }
    ~FakeConn() override
    {
        if (events_ != nullptr) events_->push_back(name_ + " gone");
    }

    /// Makes it the serial line's.
    void makeSerial()
    {
        serial = 1;
        output = &line;
    }

    /// The next read yields these lines. Without any, reads yield nothing.
    void willRead(std::vector<std::string> lines) { reads_.push_back({static_cast<int>(lines.size()), lines}); }
    /// The next read finds that the peer has closed.
    void willClose() { reads_.push_back({-1, {}}); }

    int readCmd() override
    {
        ++reads;
        if (onRead) onRead();
        if (events_ != nullptr) events_->push_back(name_ + " read");
        if (reads_.empty()) return 0;
        const Read read = reads_.front();
        reads_.pop_front();
        std::size_t at = 0;
        for (std::size_t i = 0; i < read.lines.size(); ++i) {
            cmds[i] = {tag, &rxBuf[at]};
            std::memcpy(&rxBuf[at], read.lines[i].c_str(), read.lines[i].size() + 1);
            at += read.lines[i].size() + 1;
        }
        return read.result;
    }
    int write(TOrbAttachmentMsg* msg) override
    {
        written.emplace_back(msg->text);
        records.push_back(*msg);
        return writeResult;
    }
    int hasTimedOut() override { return timedOut; }
    void setEcho(int) override {}
    int isSerialLine() override { return serial; }
    int startMute() override
    {
        ++mutes;
        return 0;
    }
    int muteExpired() override { return unmuted; }
    std::uint32_t getPortId() override { return portId; }

    std::vector<std::string> written;       ///< texts, in order
    std::vector<TOrbAttachmentMsg> records; ///< the same with their headers
    std::uint32_t tag = 0;                  ///< of the entries that reads yield
    std::function<void()> onRead;           ///< called at every read
    int writeResult = 0;
    int timedOut = 0;
    int serial = 0;
    LineOutput line;
    int unmuted = 1;
    int mutes = 0;
    int reads = 0;

private:
    struct Read {
        int result;
        std::vector<std::string> lines;
    };

    std::deque<Read> reads_;
    std::string name_;
    Events* events_;
};
