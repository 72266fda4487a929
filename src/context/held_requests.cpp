#include "context/held_requests.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "context/mutex_guard.h"

constexpr std::int64_t kLongMillis = 1000;  // from here on a question is told of
constexpr std::int64_t kMillisPerSecond = 1000;
constexpr std::int32_t kServerSize = 64;

// The question that is under way, or the last one. The table is held by one request at a
// time, so there is one at most.
//
//   asked  over
//     0     0     nobody asks
//     1     0     under way: requests that come are held
//     0     1     it was long, and those that were held all along come through now
struct Question {
  bool asked;
  bool over;
  char server[kServerSize];
  std::int64_t since;  // in ticks, as `until`
  std::int64_t until;  // once it is over
  std::int32_t held;   // requests that wait now
  std::int32_t most;   // that it has held up at once
};

static pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
static Question question;  // under `mutex`

// Of a copy, without the mutex. A short question is no news, nor one that nobody waits
// for: both come with every refresh.
static void tell(vesk_request* req, const Question& about) {
  const std::int64_t end = about.over ? about.until : req->ticks(req);
  if (about.most == 0 || end - about.since < kLongMillis) return;
  EventText line;
  clearText(&line);
  addText(&line, "vesk table busy: refresh of ");
  addPeerText(&line, about.server);
  addText(&line, " holds ");
  addCount(&line, about.most, "request");
  addText(&line, " for ");
  addDuration(&line, (end - about.since) / kMillisPerSecond);
  reportEvent(req, EventKind::busy, about.server, line);
}

// While it counts as a reason to look, every request does. REQUIRES: mutex.
static void forgetLast() {
  if (question.over) countEventsWaiting(-1);
  question.over = false;
}

// The name is copied, for a server that fails to join is gone with its proxy while its
// question may still be told of.
static bool begin(vesk_request* req, const char* server) {
  const MutexGuard guard(&mutex);
  if (question.asked) return false;
  forgetLast();
  question.asked = true;
  std::memset(question.server, 0, sizeof question.server);
  std::memcpy(question.server, server, strnlen(server, kServerSize - 1));
  question.since = req->ticks(req);
  question.most = question.held;  // those of the last one wait for this one as well
  countEventsWaiting(1);
  return true;
}

// One that was long stays in sight: who has waited since before it began knows nothing of
// it yet, and comes through from now on.
static Question end(vesk_request* req) {
  const MutexGuard guard(&mutex);
  question.asked = false;
  question.until = req->ticks(req);
  question.over = question.until - question.since >= kLongMillis;
  if (!question.over) countEventsWaiting(-1);
  return question;
}

QuestionScope::QuestionScope(vesk_request* owner, const char* server)
    : req(owner), noted(owner->holdsTable && eventsOn() && begin(owner, server)) {}

QuestionScope::~QuestionScope() {
  if (noted) tell(req, end(req));
}

// Counts a request in; false where nobody asks.
static bool holdUp(Question* now) {
  const MutexGuard guard(&mutex);
  if (!question.asked) {
    forgetLast();
    return false;
  }
  question.most = std::max(question.most, ++question.held);
  *now = question;
  return true;
}

bool WaitingRequest::enter(vesk_request* req) {
  lookAtEvents(req);
  Question now;
  if (!holdUp(&now)) return false;
  tell(req, now);
  return true;
}

void WaitingRequest::leave() {
  const MutexGuard guard(&mutex);
  --question.held;
}

// The question may have been a short one, or the reason to look another: then there is
// nothing to tell.
void WaitingRequest::comeLate(vesk_request* req) {
  Question last;
  {
    const MutexGuard guard(&mutex);
    if (!question.over) return;
    ++question.most;
    last = question;
  }
  tell(req, last);
}
