#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <string>
#include <string_view>
#include <vector>

#include "commands/command_context.h"
#include "commands/registered_proc.h"
#include "connections/login.h"
#include "connections/port_conn.h"
#include "daemon/fair_mutex.h"
#include "framework/msg_dmn.h"
#include "framework/orb_attachment_msg.h"
#include "ports/cmd_port.h"

/// The daemon: owns ports, connections, the registry and the message records.
/// Threads: the main thread constructs it, calls run() and deletes it; the service thread runs serviceLoop(). Locks are taken
/// in the order connLock, regLock.
class TTess final : public TMsgDmn {
public:
    /// Opens the queue, creates the ports asked for, installs the signal handlers.
    /// @param queueId  the daemon's own queue address
    /// @throws std::runtime_error  the queue or a port could not be set up; what was open is closed again
    TTess(long queueId, bool com2, bool telnet, bool xcp, bool ipc);

    /// Waits up to 2 seconds for the service thread, then closes all connections and ports, whether or not it has ended.
    ~TTess() override;

    /// The message loop: serves the daemon's queue until a stop message or requestStop().
    /// @return 0
    int run() noexcept override;

    /// Starts the service thread. Call once.
    /// @return 0, or an error number as pthread_create(3) gives it
    int startService();

    /// Makes this the daemon of a process that has just been forked: of the threads only the calling one is there, and what
    /// the others had locked for a moment would stay locked for good.
    void continueAsCopy() noexcept;

    /// Asks the message loop and the service thread to end. Threads: any; also from a signal handler.
    void requestStop() noexcept;

private:
    friend class TTessPeer; // tests

    // --- service thread (service_loop.cpp)
    static void* serviceThread(void* daemon);
    void serviceLoop() noexcept;
    int collectDescriptors(fd_set& readSet) noexcept;
    void acceptConnections() noexcept;
    void servicePass() noexcept;
    void serviceConn(std::size_t& index) noexcept;
    void serviceLines(std::size_t& index, int lineCount) noexcept;
    int removeConn(std::size_t index) noexcept;
    int processCmd(TPortConn* conn, const TCmdEntry* cmd) noexcept;

    // --- bulk closing, by either thread (tess.cpp)
    void closeAllConns() noexcept;
    void closeTelnetConns() noexcept;

    // --- registry (registry.cpp)
    int registerProc() noexcept;
    int unregisterProc() noexcept;
    void clearRegistry() noexcept;

    // --- message loop (message_loop.cpp)
    struct TLaterMsg {
        TOrbAttachmentMsg msg;
        std::int32_t length;
    };
    struct KindRow;
    static const KindRow kindRows[];
    bool nextMessage() noexcept;
    bool lockConns() noexcept;
    bool stopWaits() noexcept;
    void handleReply() noexcept;
    void handleRegister() noexcept;
    void handleUnregister() noexcept;
    void handleCom2Write() noexcept;
    void handleReset() noexcept;
    void replyRegistry(bool success, std::string_view text) noexcept;

    void createPorts(bool com2, bool telnet, bool xcp, bool ipc);
    void deletePorts() noexcept;
    [[noreturn]] void endWithoutServiceThread() noexcept;

    TOrbAttachmentMsg inMsg{};              ///< the message being handled
    TOrbAttachmentMsg replyMsg{};           ///< answer to its sender; never cleared in between
    std::int32_t inLen = 0;                 ///< bytes received; then bytes of replyMsg to send
    TOrbAttachmentMsg outMsg{};             ///< texts to connections and commands to processes; service thread only
    std::int32_t outLen = 0;                ///< bytes of outMsg to send to a process
    std::vector<TRegisteredProc*> regProcs; ///< owned; outlive the daemon, as nothing deletes them at its end
    std::mutex regLock;                     ///< guards regProcs
    std::vector<TCmdPort*> ports;           ///< owned, in order of creation
    std::vector<TPortConn*> conns;          ///< owned, of all ports; disposed of by removeConn()
    FairMutex connLock;                     ///< guards conns
    std::atomic<std::int32_t> stopRequested{0};
    std::atomic<bool> serviceDone{true}; ///< true before the service thread starts and after it ends
    TUserName userName{};                ///< of whoever typed one last
    TDelayQueue delayQueues;             ///< service thread only

    std::vector<std::string_view> tokens; ///< the interpreter's scratch
    std::deque<TLaterMsg> laterMsgs;      ///< taken out of the queue while the message loop waited for connLock
    bool stopSeen = false;                ///< a stop message is the last of them
    bool serviceHeldUp = false;           ///< the service thread keeps connLock for good
    TCommandContext commandContext;
};

/// The one daemon; null before construction and after teardown.
extern std::atomic<TTess*> g_tess;

/// The service thread; -1 until it is started.
extern pthread_t g_serviceThread;
