// What the plug-in tells of a request's end, as notes of httpd: for CustomLog and for
// other modules.
//
//   CustomLog logs/access.log "%h %t \"%r\" %>s %b %{VESK_SERVER}n %{VESK_STATE}n"
//
// Ownership: texts are the request's. Threads: the one that runs the request. No lock.
// Errors: none; what isn't known has no note.
#pragma once

#include <httpd.h>

#include "layer/request.h"

namespace host {

// VESK_SERVER, VESK_ATTEMPTS, VESK_STATE, VESK_TIME (microseconds of all attempts) and
// VESK_SESSION.
void putNotes(request_rec* r, const HostRequest& request);

}  // namespace host
