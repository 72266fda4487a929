// The pages that the host answers with by itself.
//
// Ownership: memory comes from the request. Threads: the one that runs it. No
// lock. Errors: a failed answer ends the connection; std::bad_alloc when memory
// is short.
#pragma once

#include <string_view>

#include "layer/request.h"

namespace host {

// Sets a response header in place of the one of that name.
void setHeader(HostRequest* request, const char* name, std::string_view value);

// Starts the response; true when a body may follow. A null reason means the usual
// one. REQUIRES: no response was started.
bool startPage(HostRequest* request, int status, const char* reason);

// Answers with a page about a status. Of the response headers so far, those that
// belong to an error stay (a redirect's location, for one). REQUIRES: no response
// was started.
void sendErrorPage(HostRequest* request, int status, const char* reason);

}  // namespace host
