// What of a browser's secrets may stand in a log: with the guard `privacy` the begin of a
// session id, and nothing of a cookie or a password. Without it all is shown as it is.
//
// Ownership: texts and buffers are the caller's. Threads: any; no lock.
// Failure: none. Units: bytes.
#pragma once

#include "context/vesk_request.h"

// With its NUL: enough to tell sessions apart, and too little to take one over.
constexpr int kShownSessionSize = 12;

// A session id as a log line shows it: itself, or its first eight characters and "...",
// which are put into `buffer` of kShownSessionSize bytes.
[[nodiscard]] const char* shownSession(const vesk_request* req, const char* id,
                                       char* buffer);

// The same for a page or a tool, whatever the guard says; of what stands behind the id in
// a cookie header nothing is shown.
void shortenSession(const char* id, char* buffer);

// The value of a header as a log line shows it: itself, or "***" where it would let its
// reader act as the browser's user. Names count in any spelling.
[[nodiscard]] const char* shownValue(const vesk_request* req, const char* name,
                                     const char* value);

// Cuts each session id in a finished line, as it stands in a URI or a cookie behind its
// name, to what shownSession shows. The guard is the caller's to ask.
void hideSessionIds(char* line);
