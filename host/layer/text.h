// What several readers of text share. Pure functions: any thread, no lock, no
// memory but the results.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace host {

constexpr std::string_view kBlanks = " \t";

// The text without what stands of `marks` at its two ends.
[[nodiscard]] std::string_view trimmed(std::string_view text, std::string_view marks);

// Takes the next word of a list, which any of the separators ends; empty at the
// end of the list.
[[nodiscard]] std::string_view takeWord(std::string_view* list,
                                        std::string_view separators);

[[nodiscard]] bool equalsNoCase(std::string_view a, std::string_view b);

// The value of a hexadecimal digit of either case, or -1.
[[nodiscard]] int hexDigit(char c);

// A whole number of digits alone: -1 for any other text, and for a number
// beyond 64 bits.
[[nodiscard]] std::int64_t numberOf(std::string_view text, int base = 10);

// What shows as `text` in an HTML document, outside of tags.
[[nodiscard]] std::string htmlOf(std::string_view text);

}  // namespace host
