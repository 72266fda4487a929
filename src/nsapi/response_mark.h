// The response as it was before the first attempt, and back to that after a failed one.
//
// What a server said of its response before it failed must not stand on the next one's:
// a content-length would cut it, an encoding would garble it.
// Ownership: the copies are request memory and belong to the record until
// releaseResponseMark. Threads: the request's own. The record must have its session and
// request. Failure: without memory headers that other functions of the web server have
// set are lost with a log line, and never those of a failed attempt kept.
#pragma once

#include "context/vesk_request.h"

// Operations of the record. Restoring a response that wasn't marked does nothing, and
// restoring one that has started shows nowhere.
void markResponse(vesk_request* req);
void restoreResponse(vesk_request* req);

// Once the request has ended.
void releaseResponseMark(vesk_request* req);
