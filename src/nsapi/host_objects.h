// The host's objects as the connector's code asks for them: the session and request
// behind a record, and what their parameter blocks mean to it.
//
// Ownership: all of it is the host's; a text out of a block stays in place until its
// parameter is dropped. Threads: the request's own; nothing here locks.
// Failure: none; what is absent is null or no.
#pragma once

#include <nsapi.h>

#include "context/vesk_request.h"

// Null in globalRequest.
[[nodiscard]] inline Session* sessionOf(const vesk_request* req) {
  return static_cast<Session*>(req->sn);
}
[[nodiscard]] inline Request* requestOf(const vesk_request* req) {
  return static_cast<Request*>(req->rq);
}

// Whether a content type marks a request for the connector; null does not.
[[nodiscard]] bool isInternalType(const char* type);

// One pass over a block. The API has no function that lists one; its records are
// published, and every host has them in this form.
struct BlockWalk {
  const pblock* block;  // null: an empty one
  int bucket;           // the next one; 0 at the begin
  const pb_entry* entry;
};

// The next parameter, in the host's order; null at the end. The block may not change
// during the pass.
[[nodiscard]] const pb_param* nextParameter(BlockWalk* walk);

// Removes the first parameter of that name and releases it; nothing happens where
// there is none.
void dropParameter(const char* name, pblock* block);
