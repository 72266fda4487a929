// What the plug-ins are told of the browser's TLS: that it is there, cipher, key size,
// session, the client's certificate and the verdict on it. It is the connection's own,
// or what a front tells of its own one.
//
// Ownership: texts are the request's. Threads: the one that runs the request.
// Errors: false when memory is short.
#pragma once

#include <httpd.h>

#include "layer/request.h"

namespace host {

// Whether the browser's connection is a TLS one.
[[nodiscard]] bool isSecure(request_rec* r);

// Gives the Service functions the rest. REQUIRES: the request runs.
[[nodiscard]] bool putTls(HostRequest* request, request_rec* r);

}  // namespace host
