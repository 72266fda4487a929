// The module's settings of one server.
//
// Ownership: httpd's configuration pool. Threads: one while the configuration is read;
// from then on read only. Errors: none.
#pragma once

#include <httpd.h>

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

}  // namespace host
