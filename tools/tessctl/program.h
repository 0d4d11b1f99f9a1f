#pragma once

#include <chrono>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// What became of one run of a program.
struct ProgramResult {
    std::string output;  ///< its standard output, up to the limit
    std::string failure; ///< why it is not well, in words; empty when it is
};

/// Runs a program once, in a process group of its own, with text on its standard input.
/// @param words        the program, looked for as the shell does, and its arguments; at least one
/// @param timeLimit    then the whole group is killed
/// @param outputLimit  in bytes; what comes behind it is thrown away
/// @param giveUp       a descriptor: when there is something to be read on it, the group is killed
///                     too; -1: none
/// Threads: any; SIGPIPE must be ignored.
ProgramResult runProgram(const std::vector<std::string>& words, std::string_view input,
                         std::chrono::milliseconds timeLimit, std::size_t outputLimit, int giveUp = -1);
