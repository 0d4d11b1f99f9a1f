#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// Rows of cells as lines, in columns that are as wide as their widest cell, two blanks between
/// them. Cells have no line ends, and a character is a column.
/// @param rows   all with as many cells; the first has the headings
/// @param width  of the lines, at most: the widest columns then get narrower, and what does not fit
///               ends with '~'; 0: as wide as it takes
/// @return lines without their ends
std::vector<std::string> tableLines(const std::vector<std::vector<std::string>>& rows, std::size_t width);

/// A line of which no more than `width` characters are left; 0: all of it.
std::string cutLine(const std::string& line, std::size_t width);
