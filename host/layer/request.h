// One request: the published records, and what the layer keeps beside them.
//
// A web server makes a HostRequest, opens it, fills `reqpb`, `headers` and the
// session's `client`, and runs its stages while a RunningRequest names it as
// the thread's request: all request memory comes from its pool.
//
// Ownership: the web server's. The pool owns every block and text in it.
// Threads: the one that runs the request. No lock.
// Errors: false when memory is short.
#pragma once

#include "layer/exchange.h"
#include "layer/pool.h"
#include "nsapi.h"

namespace host {

// What one netbuf_grab can give at most, in bytes.
constexpr int kInputBufferSize = 65536;

struct HostRequest : Request {
  RequestPool pool;
  Session session;
  netbuf input;
  Exchange* exchange;
  const char* reason;    // given to protocol_status; null: the usual one
  bool responseStarted;  // protocol_start_response was called
  bool overfull;         // a block took no further parameter
  bool translateOnly;    // made to translate a URI; there is no client for it
};

// Prepares the records with empty blocks. REQUIRES: `request` runs on this
// thread (RunningRequest), or is a scratch request of the one that does.
[[nodiscard]] bool openRequest(HostRequest* request, Exchange* exchange);

// The request that this thread runs, or null.
[[nodiscard]] HostRequest* currentRequest();

// Names the thread's request while it lives.
class RunningRequest {
 public:
  explicit RunningRequest(HostRequest* request);
  RunningRequest(const RunningRequest&) = delete;
  RunningRequest& operator=(const RunningRequest&) = delete;
  ~RunningRequest();

 private:
  HostRequest* outer_;
};

// The usual reason of a status, or "Status" for one that has none.
[[nodiscard]] const char* usualReason(int status);

}  // namespace host
