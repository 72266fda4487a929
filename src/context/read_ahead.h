// Bytes that a socket has delivered before anybody asked for them.
//
// A server's answer is many small elements in few packets. While a conversation
// reads ahead, one call fetches what is there, and the elements come from memory. The
// buffer grows once while an answer is large. A caller that wants an element whole and
// in place makes room for it, asks for the missing bytes right behind those that wait,
// and takes it:
//
//   if (makeRoomAhead(req, sock, n)) ... recv(endOfReadAhead(req), missing) ...
//   char* element = takeAhead(req, sock, n);
//
// Ownership: the record is the caller's, who calls endReadAhead before it goes; a grown
// buffer comes from the request's allocators.
// Threads: everything belongs to the request's thread; no lock is taken.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "context/vesk_request.h"

struct veskReadAhead {
  std::int32_t sock;   // which gave the bytes, -1 at first
  std::int32_t begin;  // of the bytes that wait
  std::int32_t end;
  std::int32_t capacity;  // of `bytes`
  // The socket on which something has just gone out, so that an answer can hardly be
  // there yet; -1: none.
  std::int32_t quiet;
  std::int32_t mayGrow;  // 0 once it has been tried
  char* bytes;           // `first`, or a larger block that is owned
  char first[16 << 10];
};

// Bytes of the larger block.
constexpr std::int32_t kMostReadAhead = 64 << 10;

// Has the request read ahead from here on, with nothing waiting.
void startReadAhead(vesk_request* req, veskReadAhead* ahead);

// The request reads ahead no more; what waits is forgotten.
void endReadAhead(vesk_request* req, veskReadAhead* ahead);

// The bytes that wait; 0 for a request that does not read ahead.
[[nodiscard]] std::int32_t countReadAhead(const vesk_request* req);

// Forgets what waits of a socket that closes: its number may be another's next.
void dropReadAhead(vesk_request* req, std::int32_t sock);

// As recv with flags 0, errno included, but from the bytes that wait of `sock` if
// there are any. Does not block on a non-blocking socket. A `buffer` at
// endOfReadAhead gets what is there, up to the room: `wanted` of it count as taken from
// the socket, and all of it waits.
[[nodiscard]] ssize_t recvAhead(vesk_request* req, std::int32_t sock, void* buffer,
                                std::size_t wanted);

// Makes room for `count` bytes that wait in one piece: false when that is more than the
// buffer ever holds, when another socket's bytes stand there, or without memory.
[[nodiscard]] bool makeRoomAhead(vesk_request* req, std::int32_t sock,
                                 std::int32_t count);

// Where bytes go that follow those that wait. REQUIRES: makeRoomAhead gave true.
[[nodiscard]] char* endOfReadAhead(vesk_request* req);

// The next `count` bytes of the socket in place, null if fewer wait. A look leaves them
// waiting; taken, they are the caller's to change until the next read.
[[nodiscard]] inline const char* peekAhead(const vesk_request* req, std::int32_t sock,
                                           std::int32_t count) {
  const veskReadAhead* ahead = req->readAhead;
  const bool waits = ahead && ahead->sock == sock && ahead->end - ahead->begin >= count;
  return waits ? ahead->bytes + ahead->begin : nullptr;
}
[[nodiscard]] inline char* takeAhead(vesk_request* req, std::int32_t sock,
                                     std::int32_t count) {
  if (!peekAhead(req, sock, count)) return nullptr;
  veskReadAhead* ahead = req->readAhead;
  ahead->begin += count;
  return ahead->bytes + ahead->begin - count;
}

// Counts bytes as waiting that an operation other than recvAhead has put at
// endOfReadAhead, so that `count` wait in all.
void settleReadAhead(vesk_request* req, std::int32_t sock, std::int32_t count);
