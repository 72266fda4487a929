// The stage that serves a request which was typed for the connector.
//
// Ownership: what the stage collects for a request is released when it returns,
// whatever way that is. Threads: the host's, any number at once.
// Failure: the status and reason of an error are recorded with the host, and the
// result is REQ_ABORTED.
#pragma once

#include <nsapi.h>

// REQ_PROCEED, REQ_NOACTION or REQ_ABORTED. Blocks while the request is served.
[[nodiscard]] int runServiceStage(pblock* pb, Session* sn, Request* rq);
