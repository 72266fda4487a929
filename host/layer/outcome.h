// What became of a request, by its records: what the judge is asked with.
//
// Ownership: nothing is kept. Threads: the one that runs the request. No lock.
// Failure: none.
#pragma once

#include "layer/judge.h"
#include "layer/request.h"

namespace host {

// What the plug-in has left as `vesk-outcome`, or null.
[[nodiscard]] const char* outcomeOf(const HostRequest& request);

// What the browser gets of a request whose last stage gave `result`.
[[nodiscard]] Answer judgeRequest(const HostRequest& request, int result);

}  // namespace host
