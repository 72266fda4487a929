// Where a watch looks: the status page of a web server, or the servers themselves.
//
// Ownership: the caller's. Threads: one look at a time, from any thread.
// Failure: in the view, in words; what was seen before stays the source's.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ctl/display.h"
#include "ctl/json_output.h"
#include "ctl/server_facts.h"

namespace ctl {

// What one look gave.
struct View {
  std::string failure;  // empty: it was answered; harmless text
  bool allWell = true;  // all that was asked has answered
  std::string summary;  // one line
  Table servers;
  std::vector<std::string> news;  // lines, the newest last
  Json json;                      // the same for programs
};

class WatchSource {
 public:
  virtual ~WatchSource() = default;
  // May block for the timeout of the source.
  [[nodiscard]] virtual View look() = 0;
};

[[nodiscard]] std::unique_ptr<WatchSource> watchStatusPage(const std::string& url,
                                                           double timeout);

// Asks the servers of a web server's configuration, and those that their lists name.
// Throws when the file can't be read.
[[nodiscard]] std::unique_ptr<WatchSource> watchServers(const std::string& file,
                                                        const Visit& visit);

}  // namespace ctl
