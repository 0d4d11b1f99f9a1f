#pragma once

#include <string>
#include <vector>

#include "tools/tessctl/exit_status.h"

/// A word in quotes, so that a shell reads it as this one word.
std::string shellWord(const std::string& word);

/// A command line without the words that name the host: -H HOST, -HHOST, --host HOST, --host=HOST.
/// What stands behind "--" is left alone.
std::vector<std::string> withoutHost(const std::vector<std::string>& words);

/// What a command on another host reads.
enum class RemoteInput {
    terminal, ///< one of its own there
    here,     ///< standard input
    nothing   ///< standard input is left to whoever reads it here, such as a shell's loop
};

/// What to run to have tessctl run on another host.
/// @param words  behind "tessctl", without those that name the host
std::vector<std::string> remoteCommand(const std::string& host, const std::vector<std::string>& words,
                                       RemoteInput input);

/// Becomes ssh(1), whose exit status is that of the command there, or 255.
/// @throws CtlError  it cannot be started
[[noreturn]] void runRemote(const std::vector<std::string>& command);
