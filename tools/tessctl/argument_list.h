#pragma once

#include <string>
#include <vector>

/// The words of a command line as exec(3) and posix_spawn(3) want them. The pointers belong to
/// `words`, which the two do not write to, though their declarations do not say so.
inline std::vector<char*> argumentList(const std::vector<std::string>& words)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    return arguments;
}
