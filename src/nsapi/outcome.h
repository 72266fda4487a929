// What became of a request, left for the host and its logs in the host's variables:
// `vesk-outcome` (served, broken, failed, declined), `vesk-server`, `vesk-attempts`,
// `vesk-state` (the two letters of proxy/request_outcome.h), `vesk-time` (microseconds in
// all attempts), and where a server has answered `vesk-session`: `none`, `kept`, `new`,
// `moved:` with the name of the session's server, or `moved` where that isn't known.
//
// Left when the stage ends, and as the head leaves if the end is known by then: that of
// an error page is.
//
// Ownership: the host copies the texts. Threads: the request's own.
// Failure: none; what the host has no memory for is missing.
#pragma once

#include "context/vesk_request.h"

// Nothing is left of a request that never came to an attempt. The record must have its
// request.
void leaveOutcome(const vesk_request* req);
