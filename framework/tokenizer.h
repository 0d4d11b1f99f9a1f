#pragma once

#include <string_view>
#include <vector>

/// Cuts `text` at each of the characters in `separators`. Empty tokens are not produced: "a||b" and
/// "|a|b|" give a and b.
/// @param text        the tokens point into it: it must outlive them
/// @param tokens      replaced by the tokens, in order; nothing is allocated while its capacity
///                    suffices
/// @param separators  every character of it separates
/// Threads: any.
void stringTokenizer(std::string_view text, std::vector<std::string_view>& tokens, std::string_view separators);

/// Cuts as stringTokenizer() does and reads every token as a decimal number: digits only, no sign.
/// @param numbers  replaced by the numbers, in order; meaningless after a nonzero result
/// @return 0, also when there is no token at all; nonzero when a token is anything else or does not
///         fit a signed 32-bit int
/// Threads: any.
[[nodiscard]] int intTokenizer(std::string_view text, std::vector<int>& numbers, std::string_view separators);
