#include "tools/tessctl/option_checks.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>
#include <sstream>

#include "common/white_space.h"
#include "tools/tessctl/port_mask.h"

namespace {

constexpr double MOST_SECONDS = 86'400;

bool hasWhiteSpace(std::string_view text)
{
    return std::ranges::any_of(text, isWhiteSpace);
}

} // namespace

std::string nameProblem(const std::string& name)
{
    if (name.empty() || name.size() > 255) return "a name has 1 to 255 characters";
    if (name == "*" || hasWhiteSpace(name) || name.find_first_of(".|$") != std::string::npos)
        return "a name has no white space, '.', '|' or '$' in it, and is not '*'";
    return {};
}

std::string secondsProblem(const std::string& text, double least)
{
    char* end = nullptr;
    const double seconds = std::strtod(text.c_str(), &end);
    if (!text.empty() && *end == '\0' && seconds >= least && seconds <= MOST_SECONDS) return {}; // no nan is
    std::ostringstream problem;
    problem << "a time is a number of seconds, " << least << " to " << MOST_SECONDS;
    return problem.str();
}

std::string wholeNumberProblem(std::string_view text, long least, long most, std::string_view what)
{
    long number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && end == text.data() + text.size() && number >= least && number <= most) return {};
    const bool bounded = most < std::numeric_limits<long>::max();
    return std::string(what) + " is a whole number" +
           (bounded ? " from " + std::to_string(least) + " to " + std::to_string(most)
                    : ", " + std::to_string(least) + " or more");
}

std::string choiceProblem(std::string_view text, const std::vector<std::string>& choices, std::string_view what)
{
    if (std::ranges::find(choices, text) != choices.end()) return {};
    std::string problem = std::string(what) + " is one of";
    for (const std::string& choice : choices)
        problem += (choice == choices.front() ? " " : choice == choices.back() ? " or " : ", ") + choice;
    return problem;
}

std::string portsProblem(const std::string& names)
{
    return portMask(names) ? std::string() : "ports are com2, telnet, xcp and ipc, joined by commas";
}

std::string ownHostProblem(const std::string& name)
{
    if (!name.empty() && !hasWhiteSpace(name)) return {};
    return "the name of this host has at least one character and no white space";
}

std::string remoteHostProblem(const std::string& name)
{
    if (!name.empty() && name.front() != '-' && !hasWhiteSpace(name)) return {};
    return "a host is HOST or USER@HOST, as ssh takes it";
}
