#pragma once

#include "captured_stderr.h"
#include "framework/msg_proc.h"
#include "framework/orb_attachment_msg.h"
#include "framework/queue_mgr.h"
#include "temp_dir.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <string_view>

/// A process with a queue and nothing to run.
class TQuietProc : public TMsgProc {
public:
    explicit TQuietProc(long queueId, bool openQueue = true) : TMsgProc(queueId, openQueue) {}
    int run() override { return 0; }
};

/// Runs a test in a queue directory of its own, and collects the log.
class TQueueTest : public testing::Test {
protected:
    TQueueTest() { ::setenv("TESS_QUEUE_DIR", dir_.path().c_str(), 1); }
    ~TQueueTest() override { ::unsetenv("TESS_QUEUE_DIR"); }

    void TearDown() override
    {
        if (HasFailure()) std::printf("log:\n%s", log_.text().c_str());
    }

    std::string pathOf(long address) const { return dir_ / std::to_string(address); }

    TTempDir dir_;
    TCapturedStderr log_;
};

/// A record of `length` bytes that carries `number` in its tag and is filled with `fill`.
inline TOrbAttachmentMsg numbered(std::uint32_t number, char fill = '\0')
{
    TOrbAttachmentMsg msg{};
    msg.kind = 101;
    msg.sender = 4711; // a lie, for the receiver to overwrite
    msg.tag = number;
    std::memset(msg.text, fill, sizeof msg.text);
    return msg;
}

/// Waits for the next record, as long as it takes; gives up after 20 seconds.
inline long receiveNext(TOrbAttachmentMsg& msg)
{
    long length = 0;
    for (int i = 0; i < 20 && length == 0; ++i)
        length = g_qMgr.getMsg(&msg, MSG_QUEUE_ALL, true);
    return length;
}

class TStopwatch {
public:
    long milliseconds() const
    {
        using std::chrono::milliseconds;
        return static_cast<long>(
            std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start_).count());
    }

private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

/// Processor time that the calling thread has used so far.
inline long threadCpuMilliseconds()
{
    timespec used{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return static_cast<long>(used.tv_sec) * 1000 + used.tv_nsec / 1'000'000;
}
