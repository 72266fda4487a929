// The stage that types a request: it marks what belongs to the backend and leaves
// everything else to the host.
//
// What it leaves in the host's request: the content type "vesk-internal/target",
// the mapping's index as `vesk-proxy-target`, and for a folder's URI the URI with
// the file in it. No memory of the connector's own passes to the next stage.
// Threads: the host's, any number at once.
#pragma once

#include <nsapi.h>

// Always REQ_NOACTION. Blocks while the table is first filled or refreshed.
[[nodiscard]] int runFilterStage(pblock* pb, Session* sn, Request* rq);
