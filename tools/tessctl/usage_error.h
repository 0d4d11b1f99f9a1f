#pragma once

#include <CLI/CLI.hpp>
#include <string>

/// A word of the command line that hides from CLI11, which reads more out of lists than is meant here: "[a,b]" are two
/// values, "{}" is none, and "++" ends them.
std::string hidden(const std::string& word);

/// That word as it was typed.
std::string shown(std::string word);

/// The mistake in a command line, in words that say what was meant, or what to do.
std::string usageError(const CLI::App& app, const CLI::ParseError& error);

/// What to type for help with it ("tessctl send --help").
std::string helpCommand(const CLI::App& app);

/// What to say of a word that is no sub-command.
std::string unknownCommand(const CLI::App& app, const std::string& word);
