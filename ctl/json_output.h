// Results as JSON, for --json.
//
// Threads: one. Failure: none. Units: a name that ends in _ms is milliseconds.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace ctl {

using Json = nlohmann::ordered_json;  // members stay in the order of making

// To standard output, indented, with a line end. Bytes that aren't UTF-8 become U+FFFD.
void printJson(const Json& value);

// A text as it is, or null where it isn't UTF-8.
[[nodiscard]] Json textOrNull(const std::string& text);

// Milliseconds as they are shown: to the microsecond.
[[nodiscard]] double roundedMillis(double millis);

}  // namespace ctl
