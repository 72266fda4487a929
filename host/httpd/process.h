// What the module does for a process: start-up and end of a child, and the log
// lines that belong to no request.
//
// Threads: any, but for nsapiStartChild (mod_nsapi.h). Locks: none.
// Errors: a child whose Init functions fail ends, and httpd with it.
#pragma once

#include <httpd.h>

#include "layer/request.h"

namespace host {

// Names the thread's request while it lives, and holds off the restart
// callbacks.
class RunningStage {
 public:
  explicit RunningStage(HostRequest* request);
  RunningStage(const RunningStage&) = delete;
  RunningStage& operator=(const RunningStage&) = delete;
  ~RunningStage();

 private:
  RunningRequest running_;
};

// The level of httpd's log for a degree of log_error.
[[nodiscard]] int logLevel(int degree);

// A blank, where a function's name doesn't bring its own, or nothing.
[[nodiscard]] const char* blankBehind(const char* function);

}  // namespace host
