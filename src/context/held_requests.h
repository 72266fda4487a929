// Requests that wait for a server's answer about itself, and the line that tells.
//
// Whoever asks a server while others have to wait for the answer, since it holds the
// table or fills it, says so by a HoldsTable. The question itself then notes whom it asks
// and since when, and a request that is about to wait counts itself in. One that waited
// already when the question began counts itself when it has passed.
//
//   "vesk table busy: refresh of 10.0.0.2:7001 holds 31 requests for 5s"
//
// It is written for a question that has lasted a second: with the next request that
// comes to wait, at the question's end, and with those that come through late.
//
// Ownership: records are locals. Threads: any; one mutex of its own, under which nothing
// is taken or written. Failure: none. Nothing is noted without the option `events`.
#pragma once

#include "context/events.h"

// Says for its scope that others wait for what this request asks.
struct HoldsTable {
  HoldsTable(vesk_request* owner, bool holds) : req(owner), before(owner->holdsTable) {
    if (holds) req->holdsTable = 1;
  }
  ~HoldsTable() {
    req->holdsTable = before;
  }
  HoldsTable(const HoldsTable&) = delete;
  HoldsTable& operator=(const HoldsTable&) = delete;

  vesk_request* req;
  std::int32_t before;
};

// One question to a server, for its scope. One within another's counts with that.
struct QuestionScope {
  QuestionScope(vesk_request* owner, const char* server);
  ~QuestionScope();
  QuestionScope(const QuestionScope&) = delete;
  QuestionScope& operator=(const QuestionScope&) = delete;

  vesk_request* req;
  bool noted;
};

// A request that is about to wait: from here until it has passed, or its scope ends.
// Where nobody asks anything that is two relaxed loads; else it is also the request's
// look at the lines that are held back. Where it won't be held by a question, since a
// thread asks without the table's lock, it is not counted, and that thread does the
// looking.
struct WaitingRequest {
  explicit WaitingRequest(vesk_request* owner, bool held = true)
      : req(owner),
        looked(!held || eventsWait()),
        counted(held && looked && enter(owner)) {}
  ~WaitingRequest() {
    pass();
  }
  WaitingRequest(const WaitingRequest&) = delete;
  WaitingRequest& operator=(const WaitingRequest&) = delete;

  void pass() {
    if (counted) leave();
    if (!looked && eventsWait()) comeLate(req);
    counted = false;
    looked = true;
  }

  static bool enter(vesk_request* req);
  static void leave();
  static void comeLate(vesk_request* req);

  vesk_request* req;
  bool looked;   // at the question that may be under way
  bool counted;  // among those that it holds up
};
