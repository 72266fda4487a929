// The lines of a configuration that name functions, judged as httpd reads them.
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
