// TCP over IPv4 with a limit on every wait: the default socket operations.
//
// Sockets are non-blocking from connect to close, and each wait is a poll with
// its own limit, taken from the request; a signal starts the wait anew. A receive
// limit is not final while `pingServer` of the request says that the server is well. With
// the guard `deadline` a signal doesn't lengthen a wait, and none lasts beyond `deadline`
// of the request. No socket outlives an exec: the web server's programs don't inherit it.
//
// Threads: any; a socket and a request belong to one thread at a time. Where a
// `proxy` is given, its `lock` must not be held: a ping takes it.
// Ownership: a socket is the caller's from veskConnect to veskCloseSocket.
// Failure: -1 with lastError of the request, and one log or trace line.
#pragma once

#include "context/vesk_request.h"

// The defaults, milliseconds.
constexpr std::int32_t kDefaultConnectTimeout = 15000;
constexpr std::int32_t kDefaultSendTimeout = 15000;
constexpr std::int32_t kDefaultRecvTimeout = 300000;

// What veskPeek finds on an idle socket: nothing, as it should be; bytes that nobody has
// asked for; or that the peer has closed it.
constexpr std::int32_t kIdleQuiet = 0;
constexpr std::int32_t kIdleBytes = 1;
constexpr std::int32_t kIdleEnded = 2;

// Writes the defaults, in the order connect, send, receive. `req` is not used.
void initializeSocketTimeouts(vesk_request* req, std::int32_t* timeouts);

// A connected socket, or -1. Blocks; each wait lasts connectTimeout at most, and
// a signal starts it anew.
[[nodiscard]] std::int32_t veskConnect(vesk_request* req, const sockaddr_in* address);

// Reads until `length` bytes have come or the peer has closed: the count, or -1.
// Blocks; each wait lasts recvTimeout at most, a signal starts it anew, and it is
// repeated while `pingServer` gives 1; without that, or with a null `proxy`, the first
// limit that passes is final. REQUIRES: `lock` of `proxy` is not held; a ping takes it.
[[nodiscard]] std::int32_t veskRecv(vesk_request* req, std::int32_t sock, void* buffer,
                                    std::int32_t length, veskProxy* proxy);

// Sends all `length` bytes: the count, or -1. Blocks; each wait lasts sendTimeout
// at most, and a signal starts it anew.
[[nodiscard]] std::int32_t veskSend(vesk_request* req, std::int32_t sock,
                                    const void* buffer, std::int32_t length);

// A kIdle value, by one look that takes nothing away. Doesn't block.
[[nodiscard]] std::int32_t veskPeek(vesk_request* req, std::int32_t sock);

// Whether the request as a whole has run out of time.
[[nodiscard]] bool isPastDeadline(vesk_request* req);

// Shuts down and closes; what was read ahead of the socket is gone with it. Leaves
// lastError alone.
void veskCloseSocket(vesk_request* req, std::int32_t sock);
