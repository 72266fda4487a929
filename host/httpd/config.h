// The module's settings of one server: its directives, judged as httpd reads
// them.
//
// Ownership: httpd's configuration pool; the functions and modules are given
// back with it, so that the next reading begins afresh.
// Threads: one while the configuration is read; from then on read only.
// Errors: httpd reports a directive's reason with file and line.
#pragma once

#include <httpd.h>

#include <deque>

#include "layer/directive.h"
#include "layer/stages.h"

namespace host {

struct Front;

struct ServerConfig {
  Stages* inits;        // this server's Init lines; null: none
  Stages* own;          // its lines of the other stages; null: none
  Stages* stages;       // what its requests run: `own`, else the main server's, else null
  bool clientNames;     // headers may mean the host's own words
  bool clientNamesSet;  // by a line of its own
  const Front* front;   // what ends TLS before httpd; null: nothing
  apr_array_header_t* envVars;  // names of those that go on; null: none
  bool servletPaths;            // httpd judges paths without their parameters
  bool servletPathsSet;
};

[[nodiscard]] ServerConfig* configOf(server_rec* server);

// A line that names a function, for the check of the whole.
struct SeenLine {
  server_rec* server;  // in whose section it stands
  bool init;
  Stage stage;  // of any other line
  Directive directive;
};

// All of them, in their order. REQUIRES: the configuration has been read.
[[nodiscard]] const std::deque<SeenLine>& seenLines();

}  // namespace host
