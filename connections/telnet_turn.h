#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

#include "connections/telnet_protocol.h"

namespace telnet {

/// How far an exchange of options has got.
enum class Verdict {
    goOn,
    plain,    ///< over: the client is a plain byte stream
    lineMode, ///< over: the client speaks LINEMODE
    drop,     ///< over: the client cannot be served
};

/// What an exchange makes of the client's input at one time.
class Turn {
public:
    /// Most bytes of input that a turn looks at.
    static constexpr std::size_t INPUT_BYTES = 1024;

    Verdict verdict = Verdict::goOn;
    std::size_t used = 0; ///< bytes to be taken off the front of the input

    /// Bytes to be sent.
    std::span<const Byte> answer() const { return std::span(answer_).first(size_); }

    /// Adds bytes that the client may miss: it asks again, or goes without.
    void say(std::span<const Byte> bytes)
    {
        std::ranges::copy(bytes, answer_.begin() + static_cast<std::ptrdiff_t>(size_));
        size_ += bytes.size();
    }

    /// Adds bytes without which there is no going on.
    void insist(std::span<const Byte> bytes)
    {
        say(bytes);
        needed_ = size_;
    }

    /// @param sent  how much of the answer has got out
    Verdict verdictWhen(std::size_t sent) const { return sent < needed_ ? Verdict::drop : verdict; }

private:
    /// A command is answered with no more bytes than it has itself; to one of them the offers are
    /// added, to one MODE and SLC.
    static constexpr std::size_t ANSWER_BYTES = INPUT_BYTES + offerOptions.size() + modeEdit.size() + slcForward.size();

    std::array<Byte, ANSWER_BYTES> answer_{};
    std::size_t size_ = 0;
    std::size_t needed_ = 0;
};

} // namespace telnet
