// What a secure server tells the backend of the client's connection.
//
// Ownership: the request's; the key size stays the host's text.
// Threads: the request's own. Failure: -1, when memory runs out.
#pragma once

#include "context/vesk_request.h"

// Adds the key size and the client's certificate, as far as the host has them,
// as attributes. The certificate's text lives until releaseKeptBlocks. 0, or -1
// when memory runs out; what was added by then goes with freeAttributes.
[[nodiscard]] std::int32_t addSslAttributes(vesk_request* req);
