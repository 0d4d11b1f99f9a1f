#pragma once

#include <string>
#include <string_view>
#include <vector>

/// What can be wrong with a word of the command line, in words; empty when nothing is.

/// A name that tessd's command addresses can hold, and that can be told from the wildcard.
std::string nameProblem(const std::string& name);

/// A time in seconds, of a day at most.
std::string secondsProblem(const std::string& text, double least);

/// @param what  the number is ("a tag")
std::string wholeNumberProblem(std::string_view text, long least, long most, std::string_view what);

/// @param what  the word is ("a port")
std::string choiceProblem(std::string_view text, const std::vector<std::string>& choices, std::string_view what);

/// Ports joined by commas, as portMask() takes them.
std::string portsProblem(const std::string& names);

/// What the host's name cannot be. Nothing at all would restart the device without re-initialising it.
std::string ownHostProblem(const std::string& name);

/// What ssh(1) would not take for a host.
std::string remoteHostProblem(const std::string& name);
