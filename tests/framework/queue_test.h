#pragma once

#include <cstdio>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "framework/orb_attachment_msg.h"
#include "framework/queue_mgr.h"
#include "tests/support/log_capture.h"
#include "tests/support/queue_process.h"
#include "tests/support/quiet_proc.h"

/// Runs a test in a queue directory of its own, and collects the log.
class QueueTest : public testing::Test {
protected:
    void TearDown() override
    {
        if (HasFailure()) std::printf("log:\n%s", log_.text().c_str());
    }

    std::string pathOf(long address) const { return dir_.pathOf(address); }

    TempQueueDir dir_;
    LogCapture log_;
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
