// The status page, for a Service line with report="status".
//
//   Service fn="veskservice" report="status" path="/vesk-status" from="local"
//   actions="on"
//
//   path     takes the requests for that path and what is below it; without it, all that
//            come to the line, as one in a place of its own has them
//   from     "local": clients of this machine alone
//   actions  "on": servers can be drained and put back
//
//   GET PATH[?format=html|json|prometheus|csv][&refresh=SECONDS]
//   GET PATH/explain?url=URL[&host=..][&cookie=..][&method=..][&format=html|json]
//   POST PATH, with actions="on"
//
// Threads, locks: as a request has them; no server is asked. Failure: a status and
// REQ_ABORTED.
#pragma once

#include <nsapi.h>

struct mappingsTable;

// REQ_NOACTION for a request that the line isn't for. `table` may be null.
[[nodiscard]] int runStatusStage(mappingsTable* table, pblock* pb, Session* sn,
                                 Request* rq);
