#pragma once

#include "common/wake_up.h"
#include "daemon/tess.h"

/// Lets a test at the inside of a daemon.
class TessPeer {
public:
    explicit TessPeer(TTess& tess) : tess_(tess) {}

    void acceptConnections(const WaitSet& waits = {}) { tess_.acceptConnections(waits); }
    void servicePass(const WaitSet& waits = {})
    {
        tess_.connLock.lock();
        tess_.servicePass(waits);
        tess_.unlockConns();
    }

    /// As the message loop does with an answer that has come alone.
    void takeAnswer(const TOrbAttachmentMsg& answer, std::size_t length)
    {
        tess_.inMsg = answer;
        tess_.inLen = static_cast<std::int32_t>(length);
        (void)tess_.handleReply();
        tess_.passAnswersOn();
    }
    void serviceLoop() { tess_.serviceLoop(); }
    bool collectConns(WaitSet& waits) { return tess_.collectConns(waits); }
    void serviceQueues(const WaitSet& waits, WaitSet& next) { tess_.serviceQueues(waits, next); }

    /// One turn of the service loop, which waits for `most` at most.
    void serve(std::chrono::milliseconds most = {})
    {
        WaitSet next;
        (void)tess_.collectConns(next);
        tess_.runDelayedLines(waits_);
        tess_.serviceQueues(waits_, next);
        waits_ = next;
        waits_.wait(most);
        g_wakeUp.clear();
        tess_.acceptConnections(waits_);
        servicePass(waits_);
    }
    int removeConn(std::size_t index) { return tess_.removeConn(index); }
    void closeAllConns() { tess_.closeAllConns(); }
    void closeTelnetConns() { tess_.closeTelnetConns(); }
    RegisterResult registerProc() { return tess_.registerProc(); }
    UnregisterResult unregisterProc() { return tess_.unregisterProc(); }
    bool handleReset() { return tess_.handleReset(); }
    void clearRegistry() { tess_.clearRegistry(); }

    TOrbAttachmentMsg& inMsg() { return tess_.inMsg; }
    TOrbAttachmentMsg& replyMsg() { return tess_.replyMsg; }
    TOrbAttachmentMsg& outMsg() { return tess_.outMsg; }
    std::vector<TRegisteredProc*>& regProcs() { return tess_.regProcs; }
    std::vector<TCmdPort*>& ports() { return tess_.ports; }
    std::vector<TPortConn*>& conns() { return tess_.conns; }
    FairMutex& connLock() { return tess_.connLock; }
    std::mutex& regLock() { return tess_.regLock; }
    DelayQueue& delayQueues() { return tess_.delayQueues; }
    std::int32_t stopRequested() const { return tess_.stopRequested; }
    /// @return true when the service thread has been told to end after a stop message
    bool isEnding()
    {
        const std::scoped_lock lock(tess_.connLock);
        return tess_.serviceEnd != NEVER;
    }
    bool serviceDone() const { return tess_.serviceDone; }

private:
    TTess& tess_;
    WaitSet waits_; ///< as the last wait has left it
};
