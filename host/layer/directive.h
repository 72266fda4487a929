// Function directives: the lines of a configuration that name a function.
//
//   Service fn="veskservice" type="vesk-internal/*" method="(GET|HEAD)"
//
// The web server splits its configuration into directives; the layer reads the
// parameters, finds the functions and runs them.
//
// Ownership: texts are copied. Threads: while the configuration is read, one.
// Errors: a text for the person who wrote the line, without file and line
// number; empty for success.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace host {

struct Directive {
  std::string where;  // "file:line", for messages
  std::vector<std::pair<std::string, std::string>> parameters;

  // The value of a parameter, or null.
  [[nodiscard]] const std::string* find(std::string_view name) const;
  // Replaces or adds a parameter.
  void set(std::string_view name, std::string value);
};

// Reads `name="value"` pairs. A value may stand without quotes when it has no
// blanks; within quotes, \" and \\ stand for the second character. A '#' behind
// a blank begins a comment.
[[nodiscard]] std::string parseParameters(std::string_view text, Directive* directive);

}  // namespace host
