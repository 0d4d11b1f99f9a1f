#include "tools/tessctl/text_table.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr std::size_t GAP = 2;
constexpr std::size_t LEAST = 3; // columns get no narrower

std::vector<std::size_t> columnWidths(const std::vector<std::vector<std::string>>& rows, std::size_t width)
{
    std::vector<std::size_t> widths(rows.empty() ? 0 : rows.front().size(), 0);
    for (const auto& row : rows)
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    const auto total = [&] { return std::accumulate(widths.begin(), widths.end(), widths.size() * GAP) - GAP; };
    while (width > 0 && !widths.empty() && total() > width) {
        std::size_t& widest = *std::ranges::max_element(widths);
        if (widest <= LEAST) break;
        --widest;
    }
    return widths;
}

} // namespace

std::string cutLine(const std::string& line, std::size_t width)
{
    if (width == 0 || line.size() <= width) return line;
    return line.substr(0, width - 1) + '~';
}

std::vector<std::string> tableLines(const std::vector<std::vector<std::string>>& rows, std::size_t width)
{
    const std::vector<std::size_t> widths = columnWidths(rows, width);
    std::vector<std::string> lines;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            std::string cell = row[i].size() > widths[i] ? cutLine(row[i], widths[i]) : row[i];
            cell.resize(widths[i] + GAP, ' ');
            line += cell;
        }
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(cutLine(line, width));
    }
    return lines;
}
