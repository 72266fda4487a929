// One request: the published records, and what the layer keeps beside them.
//
// A web server makes a HostRequest, opens it (request_setup.h), fills `reqpb`,
// `headers` and the session's `client`, and runs its stages while a
// RunningRequest names it as the thread's request: all request memory comes from
// its pool.
//
// Ownership: the web server's. The pool owns every block and text in it.
// Threads: the one that runs the request. No lock.
// Errors: null when memory is short.
#pragma once

#include <cstdint>

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
  bool hasBody;          // the started response may have one
  bool overfull;         // a block took no further parameter
  bool translateOnly;    // made to translate a URI; there is no client for it
};

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

// Memory of the running request, or unpooled memory outside one. Both go back
// through releasePoolBlock, or with the request.
[[nodiscard]] void* requestMemory(std::int64_t size);
[[nodiscard]] char* requestText(const char* text);

// Marks the response as started and hands its head to the web server; a status
// of 0 becomes 200. What the exchange gives. REQUIRES: none was started.
int startResponse(HostRequest* request);

}  // namespace host
