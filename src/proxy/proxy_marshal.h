// Between a request and the bytes of the protocol: the frame of a request, the
// frames of its body, and the headers of its response.
//
// Ownership: a frame is the caller's and goes back through `free` of the request.
// Threads: everything belongs to one request and one thread; no lock is taken.
// Units: lengths are bytes.
#pragma once

#include "proxy/vesk_proxy.h"

constexpr std::int32_t kMaxBodyBytes = 0xA000;  // of request body in one frame

// Builds the PROXY_SERVICE_40 frame of a request: its length, and the buffer
// through `outFrame`. 0 with lastError ENOBUFS when memory runs out or the frame
// would be longer than a 32-bit length tells; then `outFrame` is unchanged.
// `extra` may be null. Replaces attributeNames of the request.
[[nodiscard]] std::int32_t buildRequest(vesk_request* req, char** outFrame,
                                        const char* extra);

// Answers one PROXY_GET_DATA: reads up to `wanted` body bytes and sends them in
// one frame. 1 when the frame went out, also one that says that the browser broke
// off; 0 on failure, with lastError unchanged if memory ran out. Blocks.
[[nodiscard]] std::int32_t sendPostData(vesk_request* req, std::int32_t wanted,
                                        const VeskConnection* connection);

// Cuts the next "name: value" off a header text, which it changes in place: the
// position behind it, or null when no complete header is left; then the two
// results are unchanged. A continued value keeps its line ends.
[[nodiscard]] char* nextHeader(char* text, char** outName, char** outValue);
