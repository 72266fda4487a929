// What the host answers by itself: static files and error pages.
//
// Ownership: memory comes from the request. Threads: the one that runs it; a file
// is read on it, which may block. No lock. Errors: a failed answer ends
// the connection; std::bad_alloc when memory is short.
#pragma once

#include <string>

#include "layer/request.h"

namespace host {

// Answers with a page about a status. A null reason means the usual one. Of the
// response headers so far, those that belong to an error stay (a redirect's
// location, for one). REQUIRES: no response was started.
void sendErrorPage(HostRequest* request, int status, const char* reason);

// Answers with the file that `path` names, or with an error page: 404 when
// there is none, 405 for another method than GET and HEAD. False when the file
// ended before its time. REQUIRES: no response was started.
[[nodiscard]] bool sendStaticFile(HostRequest* request, const std::string& path);

}  // namespace host
