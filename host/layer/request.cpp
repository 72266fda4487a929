#include "layer/request.h"

#include <cstring>

#include "layer/status.h"

namespace host {

static thread_local HostRequest* threadRequest = nullptr;

HostRequest* currentRequest() {
  return threadRequest;
}

// Web servers run one request inside another, to find an index file or to
// translate a URI: when that has ended, the outer one is the thread's again.
RunningRequest::RunningRequest(HostRequest* request) : outer_(threadRequest) {
  threadRequest = request;
}

RunningRequest::~RunningRequest() {
  threadRequest = outer_;
}

void* requestMemory(std::int64_t size) {
  HostRequest* request = currentRequest();
  return request ? request->pool.allocate(size) : allocateUnpooled(size);
}

char* requestText(const char* text) {
  if (!text) return nullptr;
  std::size_t size = std::strlen(text) + 1;
  void* copy = requestMemory(static_cast<std::int64_t>(size));
  if (copy) std::memcpy(copy, text, size);
  return static_cast<char*>(copy);
}

int startResponse(HostRequest* request) {
  request->responseStarted = true;
  request->senthdrs = 1;
  // A plug-in that takes its status back sets this field, and has no way to the reason.
  if (request->status_num == 0) request->reason = nullptr;
  if (request->status_num == 0) request->status_num = kOk;
  const int result = request->exchange->startResponse(request);
  request->hasBody = result != REQ_NOACTION;
  return result;
}

}  // namespace host
