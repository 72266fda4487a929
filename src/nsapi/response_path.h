// The response: status and headers are recorded with the host first, then the
// host sends them, then body bytes go to the client.
//
// A write that the host wants no body for is dropped with success, so that the
// server's response is read to its end.
// Ownership: the caller keeps all texts; the host copies what it needs.
// Threads: the request's own. The record must have its session and request.
// Failure: only a write tells; a status or header that the host has no memory for is
// missing in its response. Units: bytes.
#pragma once

#include "context/vesk_request.h"

// Where a 503 is redirected to, or null. The text is the host's, of the Init
// line. Written before the first request.
extern const char* errorUrl;

// The statuses that the connector gives by itself.
constexpr std::int32_t kFound = 302;
constexpr std::int32_t kBadRequest = 400;
constexpr std::int32_t kForbidden = 403;
constexpr std::int32_t kInternalError = 500;
constexpr std::int32_t kServiceUnavailable = 503;

// Records the status; a 503 becomes a 302 to errorUrl where that is set.
void setStatus(vesk_request* req, std::int32_t status, const char* reason);

// The same through the record, for a stage that gives up: REQ_ABORTED.
[[nodiscard]] int refuse(vesk_request* req, std::int32_t status, const char* reason);

// Records one response header; the caller keeps both texts. A header replaces an
// earlier one of its name, but for cookies; "server" and "date" are dropped, for
// the host has its own; the media type is lowered, a length read as a number.
void addHeader(vesk_request* req, const char* name, const char* value);

// Starts the response if that is due, and writes body bytes: 0, or -1 with
// lastError and one more in clientWriteFailures. May block.
[[nodiscard]] std::int32_t writeClient(vesk_request* req, const char* buffer,
                                       std::int32_t length);
