// What makes a record this host's: the operations of this folder, put over the
// defaults that need no host.
//
// It stands above all files whose operations it names; only the stages and the entry
// points stand above it.
// Ownership: the record is the caller's, most often in a stage's frame. It refers to
// the host's session, request and texts for the length of one stage call and owns
// none of them. Threads: the caller's; the settings that it reads were written
// before the first request. Failure: none; a record can always be built.
#pragma once

#include <nsapi.h>

#include "context/vesk_request.h"

// Fills a record. All three host objects may be null, as for globalRequest: then
// only its allocators and log operations may be used.
void init_nsapi_request(vesk_request* req, pblock* pb, Session* sn, Request* rq);
