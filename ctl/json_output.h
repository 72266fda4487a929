// Results as JSON, for --json.
//
// Threads: one. Failure: none. Units: a name that ends in _ms is milliseconds.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace ctl {

using Json = nlohmann::ordered_json;  // members stay in the order of making

// To standard output, indented, with a line end. What isn't ASCII is spelled, so that it
// steers no terminal; bytes that aren't UTF-8 become U+FFFD.
void printJson(const Json& value);

// What a peer has sent as JSON. Throws Json::exception where it is none, and
// std::runtime_error where it lies deeper than any honest page does.
[[nodiscard]] Json parsePeerJson(const std::string& text);

// A text as it is, or null where it isn't UTF-8.
[[nodiscard]] Json textOrNull(const std::string& text);

// Milliseconds as they are shown: to the microsecond.
[[nodiscard]] double roundedMillis(double millis);

}  // namespace ctl
