// What a web server's configuration says of the connector: a file of vesk-host, or an
// httpd configuration.
//
// Ownership: the caller's. Threads: one. Files are read, none is changed, and no plug-in
// is loaded. Failure: what the web server would refuse stands among the findings; a file
// that can't be read at all throws.
#pragma once

#include <sys/types.h>

#include <deque>
#include <string>
#include <vector>

#include "ctl/httpd_lines.h"
#include "layer/option_check.h"

namespace ctl {

struct StageLine {
  host::Stage stage;
  host::Directive directive;
  HttpdSection virtualHost;  // of httpd; without a name: of all
};

struct Configuration {
  bool isHttpd = false;
  std::vector<host::Finding> findings;  // of reading it
  std::deque<host::Directive> inits;    // in the order of the lines
  std::deque<StageLine> stages;
  std::vector<HttpdLine> httpdLines;  // all of them; of httpd alone
  uid_t user = 0;                     // that requests will run as
  gid_t group = 0;
  std::string serverName;  // without a port; may be empty

  // The line of veskinit that counts, or null.
  [[nodiscard]] const host::Directive* veskinit() const;
  // What its option says, or "".
  [[nodiscard]] std::string option(const std::string& name) const;
};

[[nodiscard]] Configuration readConfiguration(const std::string& file);

// What the web server's own check would say of the lines: those of reading first.
[[nodiscard]] std::vector<host::Finding> checkConfiguration(
    const Configuration& configuration);

}  // namespace ctl
