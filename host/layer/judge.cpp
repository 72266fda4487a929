#include "layer/judge.h"

#include <string_view>

#include "layer/status.h"
#include "nsapi.h"

namespace host {

// A word of the API that nobody knows is a failure: a plug-in that gives one has
// lost its way, and to go on would show whatever it has left half-made.
StageVerdict judgeStage(int result) {
  if (result == REQ_NOACTION) return StageVerdict::declined;
  return result == REQ_PROCEED ? StageVerdict::done : StageVerdict::failed;
}

// Init functions of this API use other results freely.
bool initFails(int result) {
  return result == REQ_ABORTED || result == REQ_EXIT;
}

// Once a response was started, it can't be taken back: nobody else may answer,
// and a failure can be shown only by breaking off.
Answer judgeService(const ServiceEnd& end) {
  const StageVerdict verdict = judgeStage(end.result);
  if (verdict == StageVerdict::failed) {
    return end.responseStarted ? Answer::broken : Answer::failure;
  }
  if (end.responseStarted) return Answer::whole;
  return verdict == StageVerdict::done ? Answer::bare : Answer::none;
}

bool endsConnection(int result) {
  return result == REQ_EXIT;
}

// A status that tells of success can't stand on a page about a failure; a
// redirect can, since a plug-in may send the browser elsewhere by failing.
FailureHead failureHead(int status, const char* reason) {
  constexpr int kFirstRedirect = 300;
  if (status < kFirstRedirect) return {false, kServerError, nullptr};
  return {true, status, reason};
}

bool isInternalType(const char* type) {
  return type && std::string_view(type).starts_with("vesk-internal/");
}

}  // namespace host
