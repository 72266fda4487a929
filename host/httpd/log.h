// Lines of plug-ins in httpd's error log: the function's name, a blank, and the
// message, unchanged.
//
// Ownership: nothing is kept. Threads: any. Errors: httpd's own log tells of
// none.
#pragma once

#include <httpd.h>

namespace host {

// Writes a line of a request, in the log of its server.
void logLine(request_rec* r, int degree, const char* function, const char* message);

// Writes a line that belongs to no request; a null server is the main one's log.
void logLine(server_rec* server, int degree, const char* function, const char* message);

}  // namespace host
