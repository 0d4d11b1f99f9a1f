#pragma once

#include <cstdint>

/// One command line, as a reader hands it to the interpreter.
struct CmdEntry {
    std::uint32_t tag; ///< XCP: the tag word of the frame; elsewhere 0
    char* text;        ///< NUL-terminated; points into the receive buffer of the connection, valid until its next read
};
