// The host's two kinds of memory as allocators of a record: the running request's
// pool, and what lasts until it is released.
//
// Ownership: a block is the caller's and goes back through the family that gave it; the
// host takes back what is left in the pool when the request has ended.
// Threads: any; a block of the pool belongs to the request's own.
// Failure: null, with a log line where this layer can tell what was asked for.
// Units: bytes.
#pragma once

#include "context/vesk_request.h"

// A size of 0 or below gives one byte.
[[nodiscard]] void* nsapi_malloc(vesk_request* req, std::int32_t size);
[[nodiscard]] void* nsapi_perm_malloc(vesk_request* req, std::int32_t size);
// Null is logged, and gives null.
[[nodiscard]] char* nsapi_strdup(vesk_request* req, const char* text);
[[nodiscard]] char* nsapi_perm_strdup(vesk_request* req, const char* text);
// Null is logged, and not released.
void nsapi_free(vesk_request* req, void* block);
void nsapi_perm_free(vesk_request* req, void* block);
