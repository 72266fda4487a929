// Content types that steer a request to the plug-in: httpd's own configuration may give
// them, as by AddType, and no file goes out under one.
//
// Ownership: texts are the request's. Threads: the one that runs the request. No lock.
// Errors: false when memory is short.
#pragma once

#include <httpd.h>

#include "layer/request.h"

namespace host {

// Gives the Service functions the internal type that httpd has found. REQUIRES: the
// ObjectType functions have run: an internal type of theirs knows more, any other less.
[[nodiscard]] bool takeInternalType(request_rec* r, HostRequest* request);

// The request's type without its parameters; "" when it has none.
[[nodiscard]] const char* mediaType(const request_rec* r);

}  // namespace host
