#include "tools/tessctl/usage_error.h"

#include <algorithm>
#include <map>
#include <vector>

#include "tools/tessctl/nearest_word.h"

namespace {

constexpr char MARK = '\x01';

/// The sub-command that was typed, or the whole.
const CLI::App& chosen(const CLI::App& app)
{
    const auto typed = app.get_subcommands();
    return typed.empty() ? app : chosen(*typed.front());
}

bool hasCommands(const CLI::App& command)
{
    return !command.get_subcommands([](const CLI::App*) { return true; }).empty();
}

/// Its name, behind that of the command that it belongs to.
std::string fullName(const CLI::App& command)
{
    const CLI::App* const parent = command.get_parent();
    return (parent == nullptr ? "" : fullName(*parent) + " ") + command.get_name();
}

std::vector<std::string> optionsOf(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::Option* option : app.get_options()) {
        for (const std::string& name : option->get_snames())
            names.push_back("-" + name);
        for (const std::string& name : option->get_lnames())
            names.push_back("--" + name);
    }
    return names;
}

/// What stands behind "--", where something does.
const char* behindDashes(const std::string& command)
{
    static const std::map<std::string, const char*> each{
        {"serve", "the program stands behind --: tessctl serve NAME -- PROGRAM ARGUMENT..."},
        {"send", "a line that begins with '-' stands behind --: tessctl send -- LINE"},
        {"com2", "a text that begins with '-' stands behind --: tessctl com2 -- TEXT"},
    };
    const auto found = each.find(command);
    return found == each.end() ? nullptr : found->second;
}

std::string unknownOption(const CLI::App& command, const std::string& option)
{
    const std::string text = command.get_name() + " has no option '" + option + "'";
    const std::string meant = nearestWord(option, optionsOf(command));
    if (!meant.empty()) return text + ": do you mean '" + meant + "'?";
    if (command.get_parent() == nullptr) return text + ": those of a command stand behind it";
    const char* const hint = behindDashes(command.get_name());
    return hint == nullptr ? text : text + ": " + hint;
}

/// @param words  that the command does not know, in the order typed
std::string strangers(const CLI::App& command, const std::vector<std::string>& words)
{
    const std::string& first = words.front();
    if (first.size() > 1 && first.front() == '-') return unknownOption(command, first.substr(0, first.find('=')));
    if (hasCommands(command)) return unknownCommand(command, first);
    std::string text = command.get_name() + " takes no";
    for (const std::string& word : words)
        text += " '" + word + "'";
    return text;
}

std::vector<std::string> strangersOf(const CLI::App& command)
{
    std::vector<std::string> words = command.remaining();
    std::erase(words, "--"); // CLI11 lists it here even where the command allows it
    std::ranges::transform(words, words.begin(), shown);
    return words;
}

std::string missing(const CLI::App& app)
{
    const CLI::App& command = chosen(app);
    if (hasCommands(command)) return unknownCommand(command, "");
    for (const CLI::Option* option : command.get_options()) {
        if (!option->get_required() || option->count() > 0) continue;
        const std::string name = option->get_name();
        return command.get_name() + " wants " +
               (name == "PROGRAM" ? "a PROGRAM: " + std::string(behindDashes("serve")) : name);
    }
    return command.get_name() + " wants more";
}

} // namespace

std::string hidden(const std::string& word)
{
    const bool special =
        word.starts_with('[') || word.starts_with(MARK) || word == "{}" || word == "%%" || word == "++";
    return special ? MARK + word : word;
}

std::string shown(std::string word)
{
    if (word.starts_with(MARK)) word.erase(0, 1);
    return word;
}

std::string unknownCommand(const CLI::App& app, const std::string& word)
{
    std::vector<std::string> names;
    for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; }))
        names.push_back(command->get_name());
    const std::string meant = nearestWord(word, names);
    if (!meant.empty()) return "no command '" + word + "': do you mean '" + meant + "'?";
    const std::string all = "the commands are " + CLI::detail::join(names, ", ");
    return word.empty() ? all : "no command '" + word + "': " + all;
}

std::string usageError(const CLI::App& app, const CLI::ParseError& error)
{
    std::string what = error.what();
    for (const CLI::App* command : {&chosen(app), &app})
        if (const auto words = strangersOf(*command); !words.empty()) return strangers(*command, words);
    if (error.get_name() == "RequiredError") return missing(app);
    if (error.get_name() == "ArgumentMismatch") return what.substr(0, what.find(':')) + " wants a value";
    return what;
}

std::string helpCommand(const CLI::App& app)
{
    const CLI::App& command = chosen(app);
    return fullName(command) + " --help";
}
