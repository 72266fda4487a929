// The stage that types a request: it marks what belongs to the backend and leaves
// everything else to the host.
//
// What it leaves in the host's request: the content type "vesk-internal/target",
// the mapping's index as `vesk-proxy-target`, and for a folder's URI the URI with
// the file in it. No memory of the connector's own passes to the next stage.
// Ownership: the three host objects and the table are the caller's.
// Threads: the host's, any number at once. Locks: those of the table's operations.
// Failure: a request about which nothing can be said is the host's. One that belongs
// to the backend and can't be marked for lack of memory is refused: the host would
// answer it with the file behind its URI, which may be the source of a page.
#pragma once

#include <nsapi.h>

struct mappingsTable;

// REQ_NOACTION, or REQ_ABORTED with status 500 where memory ran out. Without a table the
// request is the host's. Blocks while the table is first filled or refreshed.
[[nodiscard]] int runFilterStage(mappingsTable* table, pblock* pb, Session* sn,
                                 Request* rq);
