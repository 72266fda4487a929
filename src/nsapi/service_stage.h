// The stage that serves a request which was typed for the connector.
//
// Ownership: what the stage collects for a request is released when it returns,
// whatever way that is; the three host objects and the table are the caller's.
// Threads: the host's, any number at once. Locks: those of the table's operations.
// Failure: the status and reason of an error are recorded with the host, and the
// result is REQ_ABORTED.
#pragma once

#include <nsapi.h>

struct mappingsTable;

// REQ_PROCEED, REQ_NOACTION or REQ_ABORTED. Without a table the answer is a 503.
// Blocks while the request is served.
[[nodiscard]] int runServiceStage(mappingsTable* table, pblock* pb, Session* sn,
                                  Request* rq);
