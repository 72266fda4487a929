// What several readers and writers of text share: blanks, numbers, hexadecimal,
// UTF-8, HTML.
//
// Pure functions: any thread, no lock. Ownership: a view is one of the
// argument.
// Errors: only those of an allocation.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace backend {

// The text without the blanks and tabs at its two ends.
[[nodiscard]] std::string_view trimmed(std::string_view text);

[[nodiscard]] bool equalsNoCase(std::string_view a, std::string_view b);

// The text as a decimal number, when it is one as a whole: digits, and maybe a
// minus before them.
[[nodiscard]] std::optional<std::int64_t> wholeNumber(std::string_view text);

// The value of a hexadecimal digit of either case, or -1.
[[nodiscard]] int hexDigit(char c);

// Lower-case hexadecimal digits, two a byte.
[[nodiscard]] std::string hexOf(std::span<const unsigned char> bytes);

// The text itself when it is valid UTF-8. Otherwise each byte becomes the
// character of its own number, so that nothing that arrived gets lost.
[[nodiscard]] std::string asUtf8(std::string_view text);

// Valid UTF-8 that shows as `text` in an HTML document and in a quoted
// attribute.
[[nodiscard]] std::string htmlOf(std::string_view text);

// True when the text can stand in a response header: no control characters.
[[nodiscard]] bool isHeaderSafe(std::string_view text);

}  // namespace backend
