// The request's body, as the client sends it.
//
// Ownership: the buffer is the caller's; what it takes leaves the host's.
// Threads: the request's own. The record must have its session.
// Failure: -1. Units: bytes.
#pragma once

#include "context/vesk_request.h"

// Gives at most `length` bytes: what the host has read already, else what one
// read from the client brings. The count; 0 when there is nothing to read; -1
// once, with a log line, when the client broke off. May block for the host's
// limit.
[[nodiscard]] std::int32_t getPostData(vesk_request* req, char* buffer,
                                       std::int32_t length);
