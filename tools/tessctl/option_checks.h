#pragma once

#include <string>
#include <string_view>
#include <vector>

/// Each of these returns what is wrong with a word of the command line, in words to print; empty
/// when nothing is.

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

/// The name of this host, behind --reinit. An empty one is wrong: the device would restart without
/// being re-initialised.
std::string ownHostProblem(const std::string& name);

/// A host as ssh(1) takes it.
std::string remoteHostProblem(const std::string& name);
