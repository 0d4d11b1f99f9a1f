#pragma once

#include <string_view>

/// What a RESET command line asks for.
enum class ResetLine {
    restart, ///< one word, whichever
    reInit,  ///< three words: the second REINIT in any case, the third this host's name, or one that begins with it
    refused, ///< anything else
};

/// Reads a RESET line; words are separated by blanks.
ResetLine parseResetLine(std::string_view line);
