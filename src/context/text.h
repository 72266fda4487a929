// Small questions about texts and numbers, for every layer.
//
// Pure functions: nothing is allocated, kept or changed. Threads: any; no lock.
// Failure: none. Units: lengths are bytes.
#pragma once

#include <cstdint>
#include <string_view>

// Length of a text; 0 for null.
[[nodiscard]] std::int64_t textLength(const char* text);

// The text itself, or `absent` in place of null: for log lines.
[[nodiscard]] const char* orElse(const char* text, const char* absent);

// The nearest 32-bit number: for log lines, whose formats have no wider one, and
// for results of that width.
[[nodiscard]] std::int32_t clampToInt32(std::int64_t number);

// A number that spreads texts over a hash table.
[[nodiscard]] std::uint32_t hashText(const char* text);

// The number that `text` spells in base 16 (sign and "0x" accepted); 0 when
// anything follows it, and for null.
[[nodiscard]] std::int64_t hexstrtol(const char* text);

// The first bytes of a text, and what stands behind them. REQUIRES: it has so many.
// substr would bring in the C++ library for a check that can't fail.
[[nodiscard]] inline std::string_view beginOf(std::string_view text, std::size_t length) {
  return {text.data(), length};
}
[[nodiscard]] inline std::string_view restOf(std::string_view text, std::size_t length) {
  return {text.data() + length, text.size() - length};
}
