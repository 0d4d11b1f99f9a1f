#pragma once

#include <array>
#include <cstddef>
#include <mutex>
#include <span>

#include "framework/orb_attachment_msg.h"

/// Answers of processes on their way to connections, in order of arrival. The message loop puts
/// them in, and whoever has locked the connections takes them out and writes them, so that the
/// message loop need not wait for that lock.
/// Threads: as said below; no call waits for longer than a copy takes.
class AnswerBox {
public:
    /// Answers that one take() yields at most.
    static constexpr std::size_t MOST_ANSWERS = 64;

    AnswerBox() = default;
    AnswerBox(const AnswerBox&) = delete;
    AnswerBox& operator=(const AnswerBox&) = delete;

    /// Puts a copy in.
    /// @param textBytes  of the text, less than MSG_TEXT_BYTES; a NUL is put behind them
    /// @return false: there is no room before the next take()
    /// Threads: message loop
    bool put(const TOrbAttachmentMsg& msg, std::size_t textBytes);

    /// Threads: any.
    bool isEmpty();

    /// Takes all answers out. Of each record only the header and the text with its NUL may be read;
    /// those may be changed too. They stay where they are until the next call that yields any.
    /// Threads: whoever has locked the connections; the message loop may unlock them before it is
    /// done with the answers, because only behind that it puts others in
    std::span<TOrbAttachmentMsg* const> take();

    /// In a process that has just been forked, whatever other threads were doing here: answers that
    /// are there are the parent's to write.
    void startInForkedChild();

private:
    struct Side {
        alignas(TOrbAttachmentMsg)
            std::array<char, 4 * MSG_RECORD_BYTES> bytes; // left as it is: few pages of it are ever used
        std::size_t used = 0;
        std::array<TOrbAttachmentMsg*, MOST_ANSWERS> answers;
        std::size_t count = 0;
    };

    std::mutex lock_;
    std::array<Side, 2> sides_;
    std::size_t filling_ = 0; ///< the side that put() fills; what take() has given out stands on the other
};
