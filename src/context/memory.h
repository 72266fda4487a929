// Memory: the allocators over the process heap, and the one checked way to ask a
// request's allocators for a block.
//
// An allocator takes an int, and gives one byte for a size of 0 or below: a size
// that was computed in 64 bits must not wrap on its way there. So whoever computes
// a size asks newBlock and its like, which refuse what doesn't fit.
//
// Ownership: a block is the caller's and goes back through the family that gave it:
// `free` for newBlock, newZeroed, copyText and newTextArray, `permFree` for the rest.
// Threads: those of the request. Failure: null; the allocator has logged, unless the
// size doesn't fit. Units: bytes.
#pragma once

#include <string_view>

#include "context/vesk_request.h"

// Memory of the request.
[[nodiscard]] void* newBlock(vesk_request* req, std::int64_t size);
[[nodiscard]] void* newZeroed(vesk_request* req, std::int64_t size);
// A copy with a NUL behind it. A NUL within `text` is copied like any byte.
[[nodiscard]] char* copyText(vesk_request* req, std::string_view text);
// `count` null pointers, and one more that ends the array.
[[nodiscard]] const char** newTextArray(vesk_request* req, std::int64_t count);

// Memory that outlives the request.
[[nodiscard]] void* newPermBlock(vesk_request* req, std::int64_t size);
[[nodiscard]] void* newPermZeroed(vesk_request* req, std::int64_t size);
[[nodiscard]] char* copyPermText(vesk_request* req, std::string_view text);
// Releases what may never have been made; null is accepted.
void freePerm(vesk_request* req, void* block);

// The allocators of init_allocators: the plain heap, also for code that has no record
// at hand; `req` may be null. Silent; doStrdup of null is a copy of "".
[[nodiscard]] void* doMalloc(vesk_request* req, std::int32_t size);
[[nodiscard]] char* doStrdup(vesk_request* req, const char* text);
void doFree(vesk_request* req, void* block);

// The allocators of init_vesk_request: the same heap, with log lines about what
// fails. A null text gives null, silently; a null block is not released.
[[nodiscard]] void* veskMalloc(vesk_request* req, std::int32_t size);
[[nodiscard]] char* veskStrdup(vesk_request* req, const char* text);
[[nodiscard]] char* veskPermStrdup(vesk_request* req, const char* text);
void veskFree(vesk_request* req, void* block);
