// Whether a request may go out a second time, and what that takes.
//
// A frame of which a server may have read a byte may have been carried out. With the
// guard `replay`, only methods that do no harm twice go out again then, and only with a
// body that can be sent again from its first byte: what was read of it is held, up to a
// limit. A refused connect is always safe, and so is a busy server that took no body.
// Without the guard everything may go out again, with what is left of the body.
//
// Ownership: the held bytes are request memory and belong to the record until endReplay.
// Threads: the request's own; no lock. Failure: without memory to hold it, a body that
// was read can't go out again. Units: bytes.
#pragma once

#include "proxy/vesk_proxy.h"

// Bytes of a request's body that are held for another attempt.
constexpr std::int32_t kMaxHeldBody = 65536;

// At the begin of each attempt: the body is read from its first byte again.
void beginReplay(vesk_request* req);

// Notes that a byte of the frame may have reached a server.
void noteFrameSent(vesk_request* req);

// Notes that a server which was reached did nothing with the request: it was busy. Only
// when it has taken no byte of the body is the frame as good as unsent.
void noteServerBusy(vesk_request* req);

// The `getPostData` operation with what was held in front. As that: the count, 0 or -1.
[[nodiscard]] std::int32_t readBody(vesk_request* req, char* buffer, std::int32_t length);

// Whether the frame may be sent now, by what was noted.
[[nodiscard]] bool mayReplay(const vesk_request* req);

// Whether a server may carry out a request of that method twice with the effect of once;
// null is no such method.
[[nodiscard]] bool isRepeatable(const char* method);

// Tells, once a request, why it isn't sent again. `proxy` is the server that failed.
void reportNoReplay(vesk_request* req, const veskProxy* proxy);

// Releases what is held, once the request has ended.
void endReplay(vesk_request* req);
