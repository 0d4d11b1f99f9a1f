#pragma once

#include <string>
#include <vector>

#include "tools/tessctl/exit_status.h"

/// A word in quotes, so that a shell reads it as this one word.
std::string shellWord(const std::string& word);

/// A command line without the words that name the host: -H HOST, -HHOST, --host HOST, --host=HOST.
/// What stands behind "--" is left alone.
std::vector<std::string> withoutHost(const std::vector<std::string>& words);

/// What to run to have tessctl run on another host.
/// @param words     behind "tessctl", without those that name the host
/// @param terminal  whether it is to have one there
std::vector<std::string> remoteCommand(const std::string& host, const std::vector<std::string>& words, bool terminal);

/// Becomes ssh(1), whose exit status is that of the command there, or 255.
/// @throws CtlError  it cannot be started
[[noreturn]] void runRemote(const std::vector<std::string>& command);
