// Makes a request's records ready for its stages.
//
// Ownership: the blocks belong to the request's pool. Threads: the one that runs
// the request. Errors: false when memory is short.
#pragma once

#include "layer/request.h"

namespace host {

// Prepares the records with empty blocks. REQUIRES: `request` runs on this
// thread (RunningRequest), or is a scratch request of the one that does.
[[nodiscard]] bool openRequest(HostRequest* request, Exchange* exchange);

}  // namespace host
