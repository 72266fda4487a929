// Texts of a request line: decoding and judging a URI.
//
// Pure functions: no memory but the results, any thread, no lock.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Decodes %XX, and nothing else. False for a '%' without two hexadecimal
// digits, and for a NUL, encoded or not; `decoded` is then unspecified.
[[nodiscard]] bool decodeUri(std::string_view raw, std::string* decoded);

// True when the path could leave the folder that it names or name one file in
// several ways: a segment "." or "..", or an empty segment ("//").
[[nodiscard]] bool uriIsEvil(std::string_view path);

}  // namespace host
