// Text for other places: hexadecimal, UTF-8, HTML. Pure functions.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace backend {

// Lower-case hexadecimal digits, two a byte.
[[nodiscard]] std::string hexOf(std::span<const unsigned char> bytes);

// The text itself when it is valid UTF-8. Otherwise each byte becomes the
// character of its own number, so that nothing that arrived gets lost.
[[nodiscard]] std::string asUtf8(std::string_view text);

// Valid UTF-8 that shows as `text` in an HTML document and in a quoted attribute.
[[nodiscard]] std::string htmlOf(std::string_view text);

// True when the text can stand in a response header: no control characters.
[[nodiscard]] bool isHeaderSafe(std::string_view text);

}  // namespace backend
