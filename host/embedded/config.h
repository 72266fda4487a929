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

#include "http/limits.h"
#include "http/tls_context.h"
#include "layer/directive.h"
#include "layer/stages.h"

namespace host {

struct ListenLine {
  std::string address;  // "ADDR:PORT"
  bool tls;
  std::string where;  // "file:line"
};

struct Config {
  std::vector<ListenLine> listeners;
  Limits limits;
  TlsFiles tls;
  std::string user;   // empty: as whom it was started
  std::string group;  // empty: the user's
  std::string userWhere;
  std::string serverName = "localhost";
  std::string documentRoot;                   // absolute; empty: none
  std::string directoryIndex = "index.html";  // names with blanks between
  bool symlinksLeaveRoot = false;             // files may be links to anywhere
  bool clientNames = false;                   // headers may mean the host's own words
  std::string errorLog;                       // empty: standard error
  std::string errorLogWhere;                  // "file:line"
  std::string accessLog;                      // empty: none
  std::string accessLogWhere;
  std::vector<Directive> inits;
  std::vector<std::pair<Stage, Directive>> stages;
};

// Reads a configuration; `file` is its name in messages. Relative paths are
// judged from the working folder. Empty for success.
[[nodiscard]] std::string readConfig(std::string_view text, const std::string& file,
                                     Config* config);

}  // namespace host
