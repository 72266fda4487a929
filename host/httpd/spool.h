// The whole body of a request, fetched before the plug-in sees the request.
//
// An input filter that changes the body, as one that unpacks it, takes away what the
// head says of it, and does so only once it reads: a server that is told the old length
// gets a part of the body, and takes it for all. So where filters stand before the
// plug-in, the body is read to its end first, and the head told the truth.
//
// Ownership: the request's pool; a file is without a name from its first moment, so that
// nothing is left behind. Threads: the one that runs the request.
// Errors: a status of httpd, as a handler gives it. Units: bytes.
#pragma once

#include <httpd.h>

namespace host {

// Whether filters other than those of the protocol read the body first.
[[nodiscard]] bool isBodyFiltered(const request_rec* r);

// Appends the body to `body`, with its end, and puts its length into the head: OK or a
// status. Where the filters step aside at their first read, only what that gave is
// taken: the rest is to be read as ever, and the head is true. Blocks.
// REQUIRES: nothing of the body was read.
[[nodiscard]] int spoolBody(request_rec* r, apr_bucket_brigade* body);

}  // namespace host
