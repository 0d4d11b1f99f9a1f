#pragma once

#include "daemon/tess.h"

/// Lets a test at the inside of a daemon.
class TTessPeer {
public:
    explicit TTessPeer(TTess& tess) : tess_(tess) {}

    void acceptConnections() { tess_.acceptConnections(); }
    void servicePass() { tess_.servicePass(); }
    void serviceLoop() { tess_.serviceLoop(); }
    int collectDescriptors(fd_set& set) { return tess_.collectDescriptors(set); }
    int removeConn(std::size_t index) { return tess_.removeConn(index); }
    void closeAllConns() { tess_.closeAllConns(); }
    void closeTelnetConns() { tess_.closeTelnetConns(); }
    int registerProc() { return tess_.registerProc(); }
    int unregisterProc() { return tess_.unregisterProc(); }
    void clearRegistry() { tess_.clearRegistry(); }

    TOrbAttachmentMsg& inMsg() { return tess_.inMsg; }
    TOrbAttachmentMsg& replyMsg() { return tess_.replyMsg; }
    TOrbAttachmentMsg& outMsg() { return tess_.outMsg; }
    std::vector<TRegisteredProc*>& regProcs() { return tess_.regProcs; }
    std::vector<TCmdPort*>& ports() { return tess_.ports; }
    std::vector<TPortConn*>& conns() { return tess_.conns; }
    FairMutex& connLock() { return tess_.connLock; }
    std::mutex& regLock() { return tess_.regLock; }
    TDelayQueue& delayQueues() { return tess_.delayQueues; }
    std::int32_t stopRequested() const { return tess_.stopRequested; }
    bool serviceDone() const { return tess_.serviceDone; }

private:
    TTess& tess_;
};
