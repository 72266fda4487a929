// A block of request memory that goes back when its scope ends.
//
// For locals only: never a field, never across a function boundary. A block that
// is to outlive the scope is taken out by setting `bytes` to null.
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

  vesk_request* req;
  char* bytes;  // null when the allocation failed
};
