// The module's settings of one place: of the whole server, or of a <Location>, with
// what the inner one leaves open taken from the outer one. A stage whose lines stand in
// no place runs those of the server (config.h).
//
// Ownership: httpd's configuration pool. Threads: one while the configuration is read;
// from then on read only. Errors: none.
#pragma once

#include <httpd.h>

#include <apr_tables.h>
#include <http_config.h>

#include "layer/stages.h"

namespace host {

// What a place says of servers' error pages.
struct ErrorOverride {
  bool on;
  apr_array_header_t* statuses;  // of int; null: those of all errors
};

// Whether any function of a plug-in may run for this request.
[[nodiscard]] bool pluginsRun(const request_rec* r);

// The lines that run for this request in a stage, or null: none. REQUIRES: pluginsRun.
[[nodiscard]] const Stages* linesOf(const request_rec* r, Stage stage);

// Why a line of the module's can't stand where it stands, or null.
[[nodiscard]] const char* misplaced(cmd_parms* cmd);

// What the request's place says of servers' error pages, or null.
[[nodiscard]] const ErrorOverride* errorOverrideOf(const request_rec* r);

// Where a place keeps what it says of them itself.
[[nodiscard]] const ErrorOverride** ownErrorOverride(void* place);

// Where a place keeps its own lines of a stage.
[[nodiscard]] Stages** ownLines(void* place, Stage stage);

// Whether its URI may name a file, so that httpd looks for it before the plug-in does.
[[nodiscard]] bool namesFiles(const request_rec* r);

// Whether some place of the configuration says that its URIs name no files.
[[nodiscard]] bool anyPlaceWithoutFiles();

}  // namespace host
