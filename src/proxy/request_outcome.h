// What became of a request, for the host and its logs: kept in the record while attempts
// are made.
//
// Two letters tell where the last attempt ended, and why.
//
//   where  C  before a connection was there     why  -  it didn't fail
//          W  waiting for the first word             R  refused or unreachable
//          H  in the head of the response            T  a time limit
//          B  in its body                            X  the connection broke
//          F  at the server's end                    B  the server is busy
//                                                    P  the protocol was broken
//                                                    C  the browser has gone
//                                                    M  memory ran out
//                                                    O  another error
//
// Ownership: the record's own fields. Threads: the request's own; no lock.
// Failure: none. Units: microseconds.
#pragma once

#include "proxy/vesk_proxy.h"

enum : char {
  kStageConnect = 'C',
  kStageWait = 'W',
  kStageHead = 'H',
  kStageBody = 'B',
  kStageEnd = 'F',
};

// At the begin of each attempt, and at its end, which took so long.
void beginOutcome(vesk_request* req, const veskProxy* proxy);
void endOutcome(vesk_request* req, bool served, std::int64_t micros);

// How far the running attempt has come: a kStage value.
inline void noteStage(vesk_request* req, char stage) {
  req->outcome.state[0] = stage;
}
