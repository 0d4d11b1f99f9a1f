#include "tools/tessctl/nearest_word.h"

#include <algorithm>

namespace {

/// How many letters must be put in, taken out, replaced or exchanged with their neighbour.
std::size_t distance(std::string_view a, std::string_view b)
{
    std::vector<std::vector<std::size_t>> steps(a.size() + 1, std::vector<std::size_t>(b.size() + 1));
    for (std::size_t i = 0; i <= a.size(); ++i) {
        for (std::size_t j = 0; j <= b.size(); ++j) {
            if (i == 0 || j == 0) {
                steps[i][j] = i + j;
                continue;
            }
            const std::size_t replaced = steps[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
            steps[i][j] = std::min({steps[i - 1][j] + 1, steps[i][j - 1] + 1, replaced});
            const bool exchanged = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (exchanged) steps[i][j] = std::min(steps[i][j], steps[i - 2][j - 2] + 1);
        }
    }
    return steps[a.size()][b.size()];
}

} // namespace

std::string nearestWord(std::string_view typed, const std::vector<std::string>& choices)
{
    // Of fewer than three letters anything could be meant. No choice is longer than LONGEST, and
    // the time grows with the product of both lengths.
    constexpr std::size_t LONGEST = 64;
    if (typed.size() < 3 || typed.size() > LONGEST) return {};
    std::string nearest;
    std::size_t least = typed.size() / 3 + 1; // up to a third of the letters may be wrong
    for (const std::string& choice : choices) {
        const std::size_t steps = choice.starts_with(typed) ? 1 : distance(typed, choice);
        if (steps >= least) continue;
        least = steps;
        nearest = choice;
    }
    return nearest;
}
