#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "framework/hr_time_out.h"
#include "framework/msg_dmn.h"
#include "framework/orb_attachment_msg.h"
#include "framework/tess_messages.h"

/// A process of the device that takes commands: it registers with tessd under a name, and answers
/// what tessd forwards to it.
///
///     CommandProcess process(1700, "ECHO", PORTS_ALL, [](std::string_view command) { return std::string(command); });
///     return process.run();
///
/// It registers again every ten seconds, because a restarted tessd has forgotten who was
/// registered, and every second while tessd is not there. Registering again also takes the name
/// back from another process that has taken it.
/// Threads: one. Only one object in a process.
class CommandProcess : public TMsgDmn {
public:
    /// Gives the answer to a command, on the thread of run(). Meanwhile further commands wait in
    /// this process's queue, which holds 11 records. Once it is full and nothing has been taken for
    /// 250 ms, tessd answers "?" in place of this process.
    /// @param command  as tessd forwards it, without the address and the line end; may be empty;
    ///                 valid during the call
    /// @return lines separated by LF, without an end: it becomes an answer as replyText() tells.
    ///         "?" refuses what is not understood; "" is answered "OK"; a last line that begins
    ///         with "Error: " says that the command failed. What it throws that is a std::exception
    ///         becomes such a line
    using AnswerTo = std::function<std::string(std::string_view command)>;

    /// Opens the queue; registering is for run().
    /// @param queueId   queue address of this process, 1 to 2147483647
    /// @param name      what clients write behind the dot ("s3.ENC"): 1 to 255 characters without
    ///                  white space, '.', '|' and '$', and not "*"; not checked; copied
    /// @param ports     the kinds of port that commands are wanted from: a sum of TessPortType,
    ///                  PORTS_ALL for all
    /// @param answerTo  not empty
    /// @throws std::runtime_error  the queue cannot be opened; the reason has been logged
    CommandProcess(long queueId, std::string_view name, std::uint32_t ports, AnswerTo answerTo);

    /// Registers and answers until SIGTERM or SIGINT, then unregisters. At the first registration
    /// it tells whoever started the process that it is up (TLogMgr::initAfterDaemonize()). The two
    /// signals and SIGALRM are its own meanwhile: when something has kept it for five seconds after
    /// the first of them (a tessd that is halted, an answer that takes its time), SIGALRM ends the
    /// process.
    /// @return 0 stopped; 1 tessd refused to register it, or the queue failed; the reason has been
    ///         logged
    int run() override;

private:
    enum class Standing { unknown, waiting, registered, refused };

    void registerWithTessd();
    void unregister();

    /// Takes one record, if one comes within a second, and acts on it.
    /// @return false: the queue failed; the reason has been logged
    bool serveOne();
    void onReply();
    void onRegistered();
    void answer(std::string_view command);
    std::string replyTo(std::string_view command) const;

    /// Sends `out_` to tessd.
    /// @param textBytes  how much of out_.text is filled
    /// @return whether it is in tessd's queue
    bool send(std::uint32_t kind, std::uint32_t tag, std::size_t textBytes);

    std::string name_;
    std::uint32_t ports_;
    AnswerTo answerTo_;
    Standing standing_ = Standing::unknown;
    bool announced_ = false;          ///< that it is up
    TOrbHRTimeOut untilRegistration_; ///< unarmed at first: it is time
    int repliesDue_ = 0;              ///< registering and unregistering that tessd has not answered
    TOrbAttachmentMsg in_{};
    TOrbAttachmentMsg out_{};
};
