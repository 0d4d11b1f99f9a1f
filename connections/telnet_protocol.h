#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

/// Numbers and byte strings of the telnet protocol, and the pure part of reading it.
namespace telnet {

using Byte = std::uint8_t;

inline constexpr Byte SE = 240, SB = 250, WILL = 251, WONT = 252, DO = 253, DONT = 254, IAC = 255; // RFC 854
inline constexpr Byte ECHO_OPTION = 1;                                                             // RFC 857
inline constexpr Byte SUPPRESS_GO_AHEAD = 3;                                                       // RFC 858
inline constexpr Byte LINEMODE = 34, MODE = 1, EDIT = 1, MODE_ACK = 4;                             // RFC 1184
inline constexpr Byte SLC = 3, SLC_FORW1 = 17, SLC_FORW2 = 18, SLC_VALUE = 2;                      // RFC 1184
inline constexpr Byte CR = 13;

inline constexpr std::array<Byte, 6> offerOptions{IAC, DO, SUPPRESS_GO_AHEAD, IAC, DO, LINEMODE};
inline constexpr std::array<Byte, 7> modeEdit{IAC, SB, LINEMODE, MODE, EDIT, IAC, SE};
inline constexpr std::array<Byte, 12> slcForward{IAC, SB,        LINEMODE,  SLC, SLC_FORW1, SLC_VALUE,
                                                 CR,  SLC_FORW2, SLC_VALUE, CR,  IAC,       SE};
inline constexpr std::array<Byte, 3> echoWill{IAC, WILL, ECHO_OPTION};
inline constexpr std::array<Byte, 3> echoWont{IAC, WONT, ECHO_OPTION};

/// What stands at the front of the input.
enum class Front {
    nothing,       ///< no input
    partOfCommand, ///< IAC, and too little behind it to tell more
    partOfSubNeg,  ///< a sub-negotiation without its end
    command,       ///< a whole command
    data,          ///< something else than a command
};

struct Scanned {
    Front front;
    std::size_t length; ///< bytes of a whole command, else 0
};

/// Looks at `input` only. A command has 3 bytes, also one that the protocol gives 2; a
/// sub-negotiation ends at IAC SE.
constexpr Scanned scan(std::span<const Byte> input)
{
    if (input.empty()) return {Front::nothing, 0};
    if (input[0] != IAC) return {Front::data, 0};
    if (input.size() < 3) return {Front::partOfCommand, 0};
    if (input[1] != SB) return {Front::command, 3};
    for (std::size_t i = 3; i < input.size(); ++i)
        if (input[i - 1] == IAC && input[i] == SE) return {Front::command, i + 1};
    return {Front::partOfSubNeg, 0};
}

/// @return true for IAC SB LINEMODE ... IAC SE
constexpr bool isLinemodeSubNeg(std::span<const Byte> command)
{
    return command.size() > 4 && command[0] == IAC && command[1] == SB && command[2] == LINEMODE;
}

/// What a client has agreed to in LINEMODE sub-negotiations, so far.
struct LinemodeAnswers {
    bool modeAck = false;
    bool forw1 = false;
    bool forw2 = false;

    constexpr bool complete() const { return modeAck && forw1 && forw2; }

    /// @param command  a LINEMODE sub-negotiation
    constexpr void take(std::span<const Byte> command)
    {
        const std::span<const Byte> body = command.first(command.size() - 2);
        // A MODE without its mask reads the IAC behind it.
        if (body.size() >= 4 && body[3] == MODE)
            modeAck = modeAck || (command[4] & (EDIT | MODE_ACK)) == (EDIT | MODE_ACK);
        if (body.size() <= 4 || body[3] != SLC) return;
        for (std::size_t i = 4; i < body.size(); i += 3) {
            // A triplet that is cut short reads the IAC SE behind it.
            const bool asked = (command[i + 1] & SLC_VALUE) != 0 && command[i + 2] == CR;
            forw1 = forw1 || (asked && command[i] == SLC_FORW1);
            forw2 = forw2 || (asked && command[i] == SLC_FORW2);
        }
    }
};

} // namespace telnet
