#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <pthread.h>
#include <span>
#include <string_view>
#include <vector>

#include "commands/command_context.h"
#include "commands/registered_proc.h"
#include "commands/waiting_answers.h"
#include "common/fair_mutex.h"
#include "common/wait_set.h"
#include "connections/line_output.h"
#include "connections/login.h"
#include "connections/port_conn.h"
#include "daemon/answer_box.h"
#include "daemon/registry_result.h"
#include "daemon/reset.h"
#include "daemon/status_report.h"
#include "framework/msg_dmn.h"
#include "framework/orb_attachment_msg.h"
#include "framework/queue_reader.h"
#include "ports/cmd_port.h"

/// The daemon: owns ports, connections, the registry and the message records.
/// Threads: the main thread constructs it, calls run() and deletes it; the service thread runs
/// serviceLoop(). In a forked copy only the forking thread is left, and deletes it. Locks are taken
/// in the order connLock, regLock.
class TTess final : public TMsgDmn {
public:
    /// Opens the queue, creates the ports asked for, installs the signal handlers.
    /// @param queueId  the daemon's own queue address
    /// @param com2     true: creates this port; likewise telnet, xcp and ipc
    /// @throws std::runtime_error  the queue, the wake-up descriptor or a port could not be set up;
    ///         the other ports and the queue are closed again (TCmdPort::openPort())
    TTess(long queueId, bool com2, bool telnet, bool xcp, bool ipc);

    /// Tells the service thread to end, which goes on for 2 seconds unless requestStop() was
    /// called, waits for it, and closes all connections and ports.
    ~TTess() override;

    /// The message loop: serves the daemon's queue until a stop message or requestStop().
    /// @return 0
    int run() noexcept override;

    /// Starts the service thread. Call once.
    /// @return 0, or an error number as pthread_create(3) gives it
    int startService();

    /// @return the ports that are open, as bits (TessPortType). Main thread, before startService()
    std::uint32_t openPorts() noexcept;

    /// Asks the message loop and the service thread to end. Threads: any; also from a signal
    /// handler.
    void requestStop() noexcept;

    /// In a forked child, before anything else there (pthread_atfork(3)): of the threads only the
    /// calling one is there.
    void startInForkedChild() noexcept;

private:
    friend class TessPeer; // tests

    // --- service thread (service_loop.cpp)
    static void* serviceThread(void* daemon);
    void serviceLoop() noexcept;
    bool collectConns(WaitSet& waits) noexcept;
    void serviceQueues(const WaitSet& waits, WaitSet& next) noexcept;
    bool isToEnd(Instant now) const noexcept;
    void unlockConns() noexcept;
    void waitAndAccept(WaitSet& waits) noexcept;
    void acceptConnections(const WaitSet& waits) noexcept;
    void runDelayedLines(const WaitSet& waits) noexcept;
    void servicePass(const WaitSet& waits) noexcept;
    bool mayGoOn(const CmdProgress& progress, const WaitSet& waits) noexcept;
    void serviceOutput(TPortConn& conn, const WaitSet& waits) noexcept;
    std::size_t serviceConn(std::size_t index) noexcept;
    std::size_t serviceLines(std::size_t index) noexcept;
    int removeConn(std::size_t index) noexcept;
    void forgetConn(TPortConn& conn) noexcept;
    void takeReports(LineOutput& output) noexcept;

    // --- bulk closing, by either thread (tess.cpp)
    void closeAllConns() noexcept;
    void closeTelnetConns() noexcept;

    // --- registry (registry.cpp)
    RegisterResult registerProc() noexcept;
    UnregisterResult unregisterProc() noexcept;
    void clearRegistry() noexcept;

    // --- message loop (message_loop.cpp)
    struct KindRow;
    static const KindRow kindRows[];
    void passAnswersOn() noexcept;
    void finishAnswers() noexcept;
    bool handleReply() noexcept;
    bool handleRegister() noexcept;
    bool handleUnregister() noexcept;
    bool handleCloseAll() noexcept;
    bool handleCom2Write() noexcept;
    bool handleCloseTelnet() noexcept;
    bool handleReset() noexcept;
    void replyRegistry(std::size_t result, std::span<const std::string_view> texts) noexcept;
    void replyReset(ResetResult result) noexcept;
    void sendReply(long address, std::int32_t length) noexcept;
    void answerWhatIsOver() noexcept;

    // --- who is there, what is passing (seeing.cpp)
    bool handleStatus() noexcept;
    bool handleWatch() noexcept;
    StatusReport report();
    void reportConnections(StatusReport& to);
    void reportProcesses(StatusReport& to);
    void sendText(std::uint32_t kind, std::string_view text) noexcept;
    void countUnknown() const noexcept;
    void countAnswer() noexcept;
    void tellRegistered() noexcept;
    void tellReset(ResetResult result) noexcept;
    void endRound() noexcept;

    void createPorts(bool com2, bool telnet, bool xcp, bool ipc);
    void deletePorts() noexcept;
    int forkWhole() noexcept;

    TOrbAttachmentMsg inMsg{}; ///< the message being handled
    QueueReader queue{inMsg};
    TOrbAttachmentMsg replyMsg{};           ///< answer to its sender; never cleared in between
    std::int32_t inLen = 0;                 ///< bytes received; then bytes of replyMsg to send
    TOrbAttachmentMsg outMsg{};             ///< texts to connections and commands to processes; service thread only
    std::int32_t outLen = 0;                ///< bytes of outMsg to send to a process
    std::vector<TRegisteredProc*> regProcs; ///< owned; not deleted when the daemon ends (deliberate)
    LeftProc leftProc;                      ///< who has unregistered last; main thread only
    std::mutex regLock;                     ///< guards regProcs, fullQueues, waitingAnswers
    std::vector<TCmdPort*> ports;           ///< owned, in order of creation
    std::vector<TPortConn*> conns;          ///< owned, of all ports; disposed of by removeConn()
    /// Guards conns, what belongs to the connections (also their output), lineReports, serviceEnd.
    FairMutex connLock;
    AnswerBox answers; ///< for them
    std::atomic<std::int32_t> stopRequested{0};
    std::atomic<bool> serviceDone{true}; ///< true before the service thread starts and after it ends
    UserName userName{};                 ///< of whoever typed one last
    DelayQueue delayQueues;              ///< service thread only

    Instant serviceEnd = NEVER;           ///< of the service thread after a stop message; guarded by connLock
    DelayedLine delayedLine;              ///< service thread only
    std::vector<std::string_view> tokens; ///< the interpreter's scratch
    FullQueues fullQueues;
    WaitingAnswers waitingAnswers{fullQueues};
    std::vector<LineOutput::Report> lineReports; ///< for the message loop; guarded by connLock
    ReInit reInit;
    Reset reset;
    struct {
        bool waits = false;
        std::int32_t sender; ///< who asked
        std::int32_t length; ///< of the message
    } resetMsg;              ///< the reset message that waits for a program; main thread only
    CommandContext commandContext;
    const Instant begin = instantNow(); ///< of the daemon
};

/// The one daemon; null before construction and after teardown.
extern std::atomic<TTess*> g_tess;

/// The service thread; -1 while there is none to join: before its start, after its end, in a copy.
extern pthread_t g_serviceThread;

/// Deletes the daemon, if there is one, and logs the end.
void endDaemon() noexcept;
