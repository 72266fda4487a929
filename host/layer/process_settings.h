// What the API gives outside a request: the server's settings, its version, and
// a log for lines that belong to no request.
//
// Ownership: the record is the layer's, its texts are the web server's and must
// last as long as the process.
// Threads: the setters before the first request; all else from any thread.
// Errors: none.
#pragma once

#include "nsapi.h"

namespace host {

// Writes a line that belongs to no request.
using LogFunction = void (*)(int degree, const char* function, const char* message);

// Sets the log for lines outside a request; null drops them.
void setProcessLog(LogFunction log);
void processLog(int degree, const char* function, const char* message);

// The settings that conf_getglobals gives outside a request: the web server may
// fill them in before it runs Init functions.
[[nodiscard]] conf_global_vars_s* processSettings();

// The text that system_version gives.
void setServerVersion(const char* version);
[[nodiscard]] const char* serverVersion();

}  // namespace host
