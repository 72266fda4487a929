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

static bool says(const char* outcome, std::string_view word) {
  return outcome && outcome == word;
}

// Bytes tell more than words, and a plug-in's own word more than the result of its
// stage: a function fails, too, when all that it did was to send a page with a status
// that tells of an error.
static Answer judgeStarted(const ServiceEnd& end) {
  if (!end.hasBody || end.missing == 0) return Answer::whole;
  if (end.missing > 0 || says(end.outcome, "broken")) return Answer::broken;
  if (says(end.outcome, "served")) return Answer::whole;
  const bool failed = judgeStage(end.result) == StageVerdict::failed;
  return failed ? Answer::unknown : Answer::whole;
}

// Once a response was started, it can't be taken back: nobody else may answer.
Answer judgeService(const ServiceEnd& end) {
  if (end.responseStarted) return judgeStarted(end);
  switch (judgeStage(end.result)) {
    case StageVerdict::failed:
      return Answer::failure;
    case StageVerdict::done:
      return Answer::bare;
    case StageVerdict::declined:
      break;
  }
  return Answer::none;
}

bool isNoServersAnswer(const char* outcome) {
  return says(outcome, "failed");
}

bool announcesClose(const char* outcome, bool hasLength) {
  return !hasLength && isNoServersAnswer(outcome);
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
