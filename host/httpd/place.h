// The module's settings of one place: of the whole server, or of a <Location>, with
// what the inner one leaves open taken from the outer one.
//
// Ownership: httpd's configuration pool. Threads: one while the configuration is read;
// from then on read only. Errors: none.
#pragma once

#include <httpd.h>

namespace host {

// Whether the plug-ins' functions run for this request at all.
[[nodiscard]] bool engineRuns(const request_rec* r);

// Whether its URI may name a file, so that httpd looks for it before the plug-in does.
[[nodiscard]] bool namesFiles(const request_rec* r);

// Whether some place of the configuration says that its URIs name no files.
[[nodiscard]] bool anyPlaceWithoutFiles();

}  // namespace host
