// Bytes that a socket has delivered before anybody asked for them.
//
// A server's answer is many small elements in few packets. While a conversation
// reads ahead, one call fetches what is there, and the elements come from memory.
//
// Ownership: the record is the caller's, who sets `readAhead` of the request back to
// null before it goes.
// Threads: everything belongs to the request's thread; no lock is taken.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "context/vesk_request.h"

struct veskReadAhead {
  std::int32_t sock;   // which gave the bytes, -1 at first
  std::int32_t begin;  // of the bytes that wait
  std::int32_t end;
  char bytes[8192];
};

// Has the request read ahead from here on, with nothing waiting.
void startReadAhead(vesk_request* req, veskReadAhead* ahead);

// The bytes that wait; 0 for a request that does not read ahead.
[[nodiscard]] std::int32_t countReadAhead(const vesk_request* req);

// Forgets what waits of a socket that closes: its number may be another's next.
void dropReadAhead(vesk_request* req, std::int32_t sock);

// As recv with flags 0, errno included, but from the bytes that wait of `sock` if
// there are any. Does not block on a non-blocking socket.
[[nodiscard]] ssize_t recvAhead(vesk_request* req, std::int32_t sock, void* buffer,
                                std::size_t wanted);
