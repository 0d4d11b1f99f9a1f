#pragma once

#include "framework/hr_time_out.h"
#include "framework/msg_dmn.h"
#include "framework/orb_attachment_msg.h"

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

/// A device process in small: it registers with tessd under the name ENC for commands from every kind of port, keeps a
/// position, and answers what tessd forwards to it.
///
///     SETX 5          sets the position; "0\r\n\r\n"
///     GETX            the position, here "5\r\n\r\n"
///     anything else   "?\r\n"
///
/// A tessd that is started anew has forgotten who was registered. Therefore it registers again every ten seconds, which is
/// harmless while it still is; and every second while tessd is not there.
/// Threads: one.
class TEncoder : public TMsgDmn {
public:
    /// @param queueId  queue address of this process, 1 to HIGHEST_QUEUE_ADDRESS
    /// @param stop     run() ends when it becomes nonzero; outlives this object; a signal handler may set it
    /// @throws std::runtime_error  the queue cannot be opened; the reason has been logged
    TEncoder(long queueId, const volatile std::sig_atomic_t& stop);

    /// Registers, answers commands until it is told to stop, and unregisters.
    /// @return 0 stopped; 1 tessd refused to register it, or the queue failed; the reason has been logged
    int run() override;

private:
    enum class Standing { unknown, waiting, registered, refused };

    void registerWithTessd();
    void unregister();

    /// Takes one record, if one comes within a second, and acts on it.
    /// @return false: the queue failed; the reason has been logged
    bool serveOne();
    void onReply();
    void answer(std::string_view command);

    /// Sends `out_` to tessd.
    /// @param textBytes  how much of out_.text is filled
    /// @return whether it is in tessd's queue
    bool send(std::uint32_t kind, std::uint32_t tag, std::size_t textBytes);

    const volatile std::sig_atomic_t& stop_;
    Standing standing_ = Standing::unknown;
    TOrbHRTimeOut untilRegistration_; ///< not set at first, which counts as timed out
    int repliesDue_ = 0;              ///< registering and unregistering that tessd has not answered
    int position_ = 0;
    TOrbAttachmentMsg in_{};
    TOrbAttachmentMsg out_{};
    std::vector<std::string_view> words_;
};
