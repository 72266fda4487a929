// The callbacks that plug-ins want called when the web server ends or restarts.
//
// Ownership: callbacks and their data belong to who gave them; the list is the
// layer's. Threads: any. Errors: false when memory is short.
#pragma once

namespace host {

// Keeps a callback for runRestartCallbacks. False as well for a null one.
[[nodiscard]] bool addRestartCallback(void (*fn)(void*), void* data);

// Runs every callback once, in the order in which they were given, and forgets
// them. REQUIRES: no request is running.
void runRestartCallbacks();

}  // namespace host
