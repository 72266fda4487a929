// Static files, as people expect them of a small web server.
//
// Ownership: memory comes from the request; a file is open as long as it is sent.
// Threads: the one that runs the request; a file is read on it, which may block.
// No lock.
// Errors: a failed answer ends the connection; std::bad_alloc when memory is
// short. Units: bytes.
#pragma once

#include "embedded/config.h"
#include "embedded/http_exchange.h"
#include "layer/request.h"

namespace host {

// Answers with the file that the request's path names, as a whole or the part that
// the client asks for, with 304 when the client has it, or with an error page: 404
// when there is none or its name is hidden, 403 when it may not be read or a link
// leads out of its root, 405 for another method than GET and HEAD. False when the
// file ended before its time. REQUIRES: no response was started.
[[nodiscard]] bool sendStaticFile(HttpExchange* exchange, HostRequest* request,
                                  const Config& config);

}  // namespace host
