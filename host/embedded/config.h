// The configuration file of the embedded host.
//
//   # comment                          at the start of a line or behind a blank
//   Name value                         server directive
//   Stage fn="name" key="value" ...    function directive
//     key="value"                      a leading blank continues the line before
//
// Ownership: the caller's. Threads: one. Errors: the text of readConfig, which
// names file, line and reason.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "layer/directive.h"
#include "layer/stages.h"

namespace host {

// More threads than any machine serves with sense.
constexpr int kMaxThreads = 4096;

struct Config {
  std::vector<std::pair<std::string, std::string>> listeners;  // "ADDR:PORT", where
  std::string serverName = "localhost";
  std::string documentRoot;                   // absolute; empty: none
  std::string directoryIndex = "index.html";  // names with blanks between
  int threads = 64;
  bool clientNames = false;   // headers may mean the host's own words
  std::string errorLog;       // empty: standard error
  std::string errorLogWhere;  // "file:line"
  std::vector<Directive> inits;
  std::vector<std::pair<Stage, Directive>> stages;
};

// Reads a configuration; `file` is its name in messages. Relative paths are
// judged from the working folder. Empty for success.
[[nodiscard]] std::string readConfig(std::string_view text, const std::string& file,
                                     Config* config);

}  // namespace host
