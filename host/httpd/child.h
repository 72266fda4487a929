// A child process of httpd: its start, and its end while requests may still run.
//
// Ownership: a RunningStage belongs to the stack frame of one hook.
// Threads: any; nsapiStartChild (mod_nsapi.h) on the one that the child begins
// with. No lock: requests in progress are counted atomically.
// Errors: a child whose Init functions fail ends, and httpd with it.
#pragma once

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

}  // namespace host
