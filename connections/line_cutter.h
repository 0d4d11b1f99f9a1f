#pragma once

#include <cstdint>
#include <span>

#include "connections/cmd_entry.h"

/// Cuts received text into command lines, in place: leading white space goes, trailing white space
/// stays, every line end and the white space behind it become NUL, runs of empty lines yield
/// nothing, and a last piece without a line end is a line too. That piece is not given a NUL: it
/// ends at the NUL that the caller has put behind the text, or runs on where there is none (COM2).
/// @param received    the text; its line ends are overwritten
/// @param nulIsSpace  NUL counts as white space
/// @param lines       receives the entries, tag 0, pointing into `received`; must hold one entry a
///                    byte
/// @return number of lines
int cutLines(std::span<char> received, bool nulIsSpace, std::span<CmdEntry> lines);

/// Cuts the payload of an XCP frame. Differs from cutLines(): a line keeps its CR or LF, and runs
/// on behind it, unless the next byte is white space (that one becomes NUL); a NUL is no white
/// space, so one behind a line end is an empty line of its own.
/// @param payload  the text; white space in front of lines is overwritten
/// @param tag      goes into every entry
/// @param lines    as for cutLines()
/// @return number of lines
int cutFrameLines(std::span<char> payload, std::uint32_t tag, std::span<CmdEntry> lines);
