#pragma once

#include <CLI/CLI.hpp>
#include <string>

/// Marks a word of the command line that has a meaning of its own for CLI11, so that it is taken as
/// it stands: "[a,b]" would be two values, "{}" none, and "++" the end of a list.
std::string hidden(const std::string& word);

/// The word as it was typed, marked by hidden() or not.
std::string shown(std::string word);

/// The mistake in a command line, in words that say what was meant, or what to do.
std::string usageError(const CLI::App& app, const CLI::ParseError& error);

/// What to type for help with it ("tessctl send --help").
std::string helpCommand(const CLI::App& app);

/// What to say of a word that is no sub-command.
std::string unknownCommand(const CLI::App& app, const std::string& word);
