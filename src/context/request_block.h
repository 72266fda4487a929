// A block of request memory that goes back when its scope ends.
//
// For locals only: never a field, never across a function boundary. A block that
// is to outlive the scope is taken out with handOn.
#pragma once

#include "context/vesk_request.h"

struct RequestBlock {
  RequestBlock(vesk_request* owner, void* block)
      : req(owner), bytes(static_cast<char*>(block)) {}
  ~RequestBlock() {
    if (bytes) req->free(req, bytes);
  }
  RequestBlock(const RequestBlock&) = delete;
  RequestBlock& operator=(const RequestBlock&) = delete;

  // The block, which is the caller's from here on.
  [[nodiscard]] char* handOn() {
    char* block = bytes;
    bytes = nullptr;
    return block;
  }

  vesk_request* req;
  char* bytes;  // null when the allocation failed, and once handed on
};
