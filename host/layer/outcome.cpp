#include "layer/outcome.h"

#include "layer/parameters.h"

namespace host {

const char* outcomeOf(const HostRequest& request) {
  return findValue(request.vars, "vesk-outcome");
}

Answer judgeRequest(const HostRequest& request, int result) {
  return judgeService({result, request.responseStarted, request.hasBody,
                       request.exchange->missing(), outcomeOf(request)});
}

}  // namespace host
