// What the layer keeps for the process: the log and the settings outside a
// request, critical sections, restart callbacks.
//
// Ownership: a critical section belongs to the layer until
// releaseCriticalSections; callbacks and their data belong to who gave them.
// Threads: the setters before the first request; all else from any thread.
// Errors: null or false when memory is short.
#pragma once

#include "nsapi.h"

namespace host {

// Writes a line that belongs to no request.
using LogFunction = void (*)(int degree, const char* function, const char* message);

// Sets the log for lines outside a request; null drops them.
void setProcessLog(LogFunction log);
void processLog(int degree, const char* function, const char* message);

// The settings that conf_getglobals gives outside a request: a record of the
// layer that the web server may fill in before it runs Init functions.
[[nodiscard]] conf_global_vars_s* processSettings();

// The text that system_version gives; must last as long as the process.
void setServerVersion(const char* version);
[[nodiscard]] const char* serverVersion();

[[nodiscard]] CRITICAL newCriticalSection();
void enterCriticalSection(CRITICAL section);
void leaveCriticalSection(CRITICAL section);

// Frees every critical section. REQUIRES: nobody uses one any more.
void releaseCriticalSections();

// Keeps a callback for runRestartCallbacks.
[[nodiscard]] bool addRestartCallback(void (*fn)(void*), void* data);

// Runs every callback once, in the order in which they were given, and forgets
// them. REQUIRES: no request is running.
void runRestartCallbacks();

}  // namespace host
