#pragma once

#include <string>
#include <string_view>

/// An encoder in small: it keeps a position, which commands set and ask for.
///
///     SETX 5          sets the position; "0"
///     GETX            the position, here "5"
///     anything else   "?"
///
/// Threads: one.
class Encoder {
public:
    /// @param command  without an address and a line end; may be empty
    /// @return the answer, without its line end
    std::string answerTo(std::string_view command);

private:
    int position_ = 0;
};
