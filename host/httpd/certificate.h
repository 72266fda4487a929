// A certificate as plug-ins get it: the base64 text alone, in lines of 64 characters.
//
// Pure functions: any thread, no lock, no memory but the result.
#pragma once

#include <string>
#include <string_view>

namespace host {

// Reads one with or without the lines that mark its begin and end, in one line or
// several, with blanks for line ends as they are in a header, or with %XX; of a chain,
// the first. Empty for any other text.
[[nodiscard]] std::string certificateText(std::string_view text);

}  // namespace host
