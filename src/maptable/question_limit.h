// How long a question to one of several servers may last: they share the time of one.
//
// Without that, on the connector's own thread, a server that is well would be kept
// waiting by all those that take every connection and never answer. One that is well
// answers in milliseconds, and loses nothing.
//
// Threads: the request's own; no lock. Failure: none. Units: milliseconds.
#pragma once

#include <algorithm>

#include "context/vesk_request.h"

// The part of a limit; 0 stays none.
[[nodiscard]] inline std::int32_t shareOfLimit(std::int32_t limit, std::int32_t among) {
  constexpr std::int32_t kLeast = 1000;
  if (limit == 0 || among < 2) return limit;
  return std::min(limit, std::max(limit / among, kLeast));
}

// Gives the questions of its scope their part. For locals only.
struct SharedLimit {
  SharedLimit(vesk_request* owner, std::int32_t among)
      : req(owner), whole(owner->conversationLimit) {
    req->conversationLimit = shareOfLimit(whole, among);
  }
  ~SharedLimit() {
    req->conversationLimit = whole;
  }
  SharedLimit(const SharedLimit&) = delete;
  SharedLimit& operator=(const SharedLimit&) = delete;

  vesk_request* req;
  std::int32_t whole;
};
