// What the module keeps for a request of httpd between its hooks: the records
// that the stage functions see.
//
// Ownership: the request's pool. Threads: the one that runs the request.
// Errors: null when memory is short.
#pragma once

#include <httpd.h>

#include "httpd/exchange.h"
#include "layer/request.h"

namespace host {

struct RequestState {
  explicit RequestState(request_rec* r) : exchange(r), uri(r->uri) {}

  HttpdExchange exchange;
  HostRequest request;
  const char* uri;                     // what the records were filled for
  bool typed = false;                  // the ObjectType functions have run
  const char* otherHandler = nullptr;  // what httpd would have done
};

// The state of a request, made and filled where there is none yet for its
// present URI: httpd may go over to an index file in the midst of a request.
[[nodiscard]] RequestState* stateOf(request_rec* r);

// Gives the request, and its state, the URI as it came in place of the one that httpd has
// judged: false when memory is short.
[[nodiscard]] bool putWholeUri(request_rec* r);

// Gives the ObjectType functions `path`, `ppath` and `ntrans-base` where no
// NameTrans function did, and `path-info`. REQUIRES: the request runs.
[[nodiscard]] bool putPaths(RequestState* state, request_rec* r);

// Gives the Service functions the headers as they are by now, the user that
// httpd has found, and what the TLS connection tells. REQUIRES: the request
// runs.
[[nodiscard]] bool putClient(RequestState* state, request_rec* r);

}  // namespace host
