#include "tools/tessctl/remote.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

#include "tools/tessctl/argument_list.h"

std::string shellWord(const std::string& word)
{
    std::string quoted = "'";
    for (const char c : word)
        quoted.append(c == '\'' ? "'\\''" : std::string(1, c));
    return quoted + '\'';
}

std::vector<std::string> withoutHost(const std::vector<std::string>& words)
{
    std::vector<std::string> rest;
    for (auto word = words.begin(); word != words.end(); ++word) {
        if (*word == "--") {
            rest.insert(rest.end(), word, words.end());
            break;
        }
        if ((*word == "-H" || *word == "--host") && word + 1 != words.end())
            ++word; // the host is the next word
        else if (!word->starts_with("-H") && !word->starts_with("--host="))
            rest.push_back(*word);
    }
    return rest;
}

std::vector<std::string> remoteCommand(const std::string& host, const std::vector<std::string>& words,
                                       RemoteInput input)
{
    std::vector<std::string> command{"ssh"};
    command.emplace_back(input == RemoteInput::terminal ? "-t" : "-T");
    if (input == RemoteInput::nothing) command.emplace_back("-n");
    command.push_back(host);
    command.emplace_back("tessctl");
    for (const std::string& word : words)
        command.push_back(shellWord(word)); // ssh makes one line of them, for the shell there
    return command;
}

void runRemote(const std::vector<std::string>& command)
{
    const std::vector<char*> arguments = argumentList(command);
    ::execvp(arguments[0], arguments.data());
    throw CtlError(STATUS_NO_CONNECTION, command.front() + ": " + std::generic_category().message(errno) +
                                             ": -H wants ssh, of the package openssh-client");
}
