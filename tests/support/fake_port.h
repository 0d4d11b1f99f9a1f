#pragma once

#include <atomic>
#include <deque>
#include <functional>

#include "ports/cmd_port.h"

/// A port that hands out what a test puts in.
class FakePort : public TCmdPort {
public:
    explicit FakePort(std::uint32_t type) : TCmdPort(type, 10, 0) {}
    ~FakePort() override
    {
        for (const TPortConn* conn : waiting)
            delete conn;
        if (gone != nullptr) *gone = true;
    }

    int openPort() override { return 0; }
    int closePort() override { return 0; }
    int chkNewConn(TPortConn** newConn) override
    {
        ++checks;
        if (onCheck) onCheck();
        due = waiting.size() > 1 ? AT_ONCE : NEVER;
        if (waiting.empty()) return checkResult;
        *newConn = waiting.front();
        waiting.pop_front();
        return 1;
    }
    int closeConn(TPortConn** conn) override
    {
        ++closed;
        if (closeResult != 0) return closeResult;
        delete *conn;
        *conn = nullptr;
        return 0;
    }

    std::deque<TPortConn*> waiting; ///< owned until handed out
    int checkResult = 0;            ///< of a check that finds nobody
    int closeResult = 0;            ///< not 0: closeConn() leaves the connection alone
    std::function<void()> onCheck;  ///< called at every check
    std::atomic<int> checks = 0;
    int closed = 0;
    bool* gone = nullptr; ///< set at the end of the port
};
