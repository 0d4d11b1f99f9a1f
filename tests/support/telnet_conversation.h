#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "connections/telnet_turn.h"

inline const std::string OFFERS = "\xFF\xFD\x03\xFF\xFD\x22";
inline const std::string MODE_AND_SLC = "\xFF\xFA\x22\x01\x01\xFF\xF0\xFF\xFA\x22\x03\x11\x02\x0D\x12\x02\x0D\xFF\xF0";
inline const std::string MODE_ACK = "\xFF\xFA\x22\x01\x05\xFF\xF0";
inline const std::string SLC_ACK = "\xFF\xFA\x22\x03\x11\x82\x0D\x12\x82\x0D\xFF\xF0";
inline const std::string WILL_LINEMODE = "\xFF\xFB\x22";
inline const std::string WILL_ECHO = "\xFF\xFB\x01";
inline const std::string WONT_ECHO = "\xFF\xFC\x01";
inline const std::string DO_ECHO = "\xFF\xFD\x01";
inline const std::string DONT_ECHO = "\xFF\xFE\x01";

/// An exchange of options with a client, without a socket and at times that the test makes up.
template <class Exchange> class TelnetConversation {
public:
    using Milliseconds = std::chrono::milliseconds;

    /// @param make  makes the exchange for the time it is given
    template <class Make> explicit TelnetConversation(Make make) : exchange_(make(Instant{})) {}

    /// The client sends.
    void hear(std::string_view bytes)
    {
        rest_ += bytes;
        while (isUnderWay() && take() > 0) {
        }
    }

    /// Time passes; the exchange is looked at whenever it is due.
    void passTo(Milliseconds end)
    {
        while (isUnderWay() && exchange_.due() <= Instant{} + end) {
            now_ = std::max(now_, exchange_.due());
            (void)take();
        }
        if (isUnderWay()) now_ = std::max(now_, Instant{} + end);
    }

    bool isUnderWay() const { return verdict_ == telnet::Verdict::goOn; }
    telnet::Verdict verdict() const { return verdict_; }
    const std::string& sent() const { return sent_; } ///< to the client
    const std::string& rest() const { return rest_; } ///< what has not been used
    Milliseconds now() const
    {
        return std::chrono::duration_cast<Milliseconds>(now_ - Instant{});
    } ///< stays at the end
    const Exchange& exchange() const { return exchange_; }

private:
    std::size_t take()
    {
        const std::string_view seen = std::string_view(rest_).substr(0, telnet::Turn::INPUT_BYTES);
        const telnet::Turn turn =
            exchange_.take({reinterpret_cast<const telnet::Byte*>(seen.data()), seen.size()}, now_);
        verdict_ = turn.verdict;
        sent_.append(turn.answer().begin(), turn.answer().end());
        rest_.erase(0, turn.used);
        return turn.used;
    }

    Exchange exchange_;
    Instant now_{};
    telnet::Verdict verdict_ = telnet::Verdict::goOn;
    std::string sent_;
    std::string rest_;
};

inline const char* nameOf(telnet::Verdict verdict)
{
    switch (verdict) {
    case telnet::Verdict::goOn:
        return "go on";
    case telnet::Verdict::plain:
        return "plain";
    case telnet::Verdict::lineMode:
        return "LINEMODE";
    case telnet::Verdict::drop:
        return "drop";
    }
    return "?";
}

/// What a client sends at a time of a conversation, in milliseconds.
struct Piece {
    int at;
    std::string bytes;
};
