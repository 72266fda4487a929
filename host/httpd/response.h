// The head of a response, put into httpd's own fields.
//
// Ownership: texts are copied to the request's pool. Threads: the one that runs
// the request. Errors: headers that can't be sent are dropped with a log line.
// Units: bytes.
#pragma once

#include <httpd.h>

#include <cstdint>

#include "layer/request.h"

namespace host {

// Sets status, reason, type, length and headers of the response: the length of
// the body, or -1 when it is unknown.
std::int64_t putHead(request_rec* r, const HostRequest* request);

// Sets what an error page of httpd's own takes from the plug-in: reason and
// headers, but for those that describe a body.
void putErrorHead(request_rec* r, const HostRequest* request);

// Has the connection end with this response; a part of another page, as an included
// one, decides nothing about the connection of the whole.
void closeBehind(request_rec* r);

}  // namespace host
