#pragma once

#include <string>

/// Where the console keeps its history: tessctl/history in $XDG_STATE_HOME, or in ~/.local/state.
/// Makes the folder, for this user alone, and moves a file of earlier versions there
/// (~/.tessctl_history).
/// @return its path; empty where there is no place for it
std::string historyFile();
