// Attributes that the module adds to a request: plug-ins find them in `vars`, and the
// connector hands them to the server. No header of a browser can be taken for one.
//
// Ownership: texts are copied. Threads: the one that runs the request. Errors: false
// when memory is short.
#pragma once

#include <httpd.h>

#include "layer/request.h"

namespace host {

// A null value is left out. REQUIRES: the request runs.
[[nodiscard]] bool putAttribute(HostRequest* request, const request_rec* r,
                                const char* name, const char* value);

// Puts the environment variables that the server's lines name, as far as the request
// has them. REQUIRES: the request runs.
[[nodiscard]] bool putEnvVars(HostRequest* request, const request_rec* r);

}  // namespace host
