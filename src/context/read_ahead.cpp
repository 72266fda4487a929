#include "context/read_ahead.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "context/memory.h"

// The bytes aren't cleared: only those between begin and end are ever read.
void startReadAhead(vesk_request* req, veskReadAhead* ahead) {
  ahead->sock = -1;
  ahead->begin = ahead->end = 0;
  ahead->capacity = sizeof ahead->first;
  ahead->quiet = -1;
  ahead->mayGrow = 1;
  ahead->bytes = ahead->first;
  req->readAhead = ahead;
}

void endReadAhead(vesk_request* req, veskReadAhead* ahead) {
  if (ahead->bytes != ahead->first) req->free(req, ahead->bytes);
  req->readAhead = nullptr;
}

std::int32_t countReadAhead(const vesk_request* req) {
  return req->readAhead ? req->readAhead->end - req->readAhead->begin : 0;
}

void dropReadAhead(vesk_request* req, std::int32_t sock) {
  veskReadAhead* ahead = req->readAhead;
  if (!ahead || ahead->sock != sock) return;
  ahead->sock = -1;
  ahead->begin = ahead->end = 0;
}

// Whether nobody else's bytes stand in the buffer. A second socket must not displace
// what waits of the first.
static bool isFreeFor(const veskReadAhead* ahead, std::int32_t sock) {
  return ahead->sock == sock || ahead->begin == ahead->end;
}

static ssize_t give(veskReadAhead* ahead, void* buffer, std::size_t wanted) {
  const auto waiting = static_cast<std::size_t>(ahead->end - ahead->begin);
  const std::size_t count = std::min(wanted, waiting);
  std::memcpy(buffer, ahead->bytes + ahead->begin, count);
  ahead->begin += static_cast<std::int32_t>(count);
  return static_cast<ssize_t>(count);
}

// An answer that has filled the buffer is a large one. Without memory the small buffer
// serves on.
static void grow(vesk_request* req, veskReadAhead* ahead) {
  ahead->mayGrow = 0;
  auto* larger = static_cast<char*>(newBlock(req, kMostReadAhead));
  if (!larger) return;
  const auto waiting = static_cast<std::size_t>(ahead->end - ahead->begin);
  std::memcpy(larger, ahead->bytes + ahead->begin, waiting);
  ahead->begin = 0;
  ahead->end = static_cast<std::int32_t>(waiting);
  ahead->bytes = larger;
  ahead->capacity = kMostReadAhead;
}

// One call for all that fits behind what waits. A failed or empty read leaves alone what
// stands there, so that its owner is still named.
static ssize_t fill(veskReadAhead* ahead, std::int32_t sock) {
  const auto room = static_cast<std::size_t>(ahead->capacity - ahead->end);
  const ssize_t result = recv(sock, ahead->bytes + ahead->end, room, 0);
  if (result <= 0) return result;
  ahead->sock = sock;
  ahead->end += static_cast<std::int32_t>(result);
  return result;
}

ssize_t recvAhead(vesk_request* req, std::int32_t sock, void* buffer,
                  std::size_t wanted) {
  veskReadAhead* ahead = req->readAhead;
  if (!ahead) return recv(sock, buffer, wanted, 0);
  if (ahead->end < ahead->capacity && buffer == ahead->bytes + ahead->end)
    return std::min(fill(ahead, sock), static_cast<ssize_t>(wanted));
  const bool waiting = ahead->begin != ahead->end;
  if (waiting && ahead->sock == sock) return give(ahead, buffer, wanted);
  // Much is better read where it belongs.
  if (waiting || wanted >= static_cast<std::size_t>(ahead->capacity))
    return recv(sock, buffer, wanted, 0);
  if (ahead->end == ahead->capacity && ahead->mayGrow != 0) grow(req, ahead);
  ahead->begin = ahead->end = 0;
  const ssize_t result = fill(ahead, sock);
  return result <= 0 ? result : give(ahead, buffer, wanted);
}

bool makeRoomAhead(vesk_request* req, std::int32_t sock, std::int32_t count) {
  veskReadAhead* ahead = req->readAhead;
  if (!ahead || count > kMostReadAhead || !isFreeFor(ahead, sock)) return false;
  if (ahead->begin == ahead->end) ahead->begin = ahead->end = 0;
  if (count <= ahead->end - ahead->begin) return true;
  const bool large = ahead->end == ahead->capacity || count > ahead->capacity;
  if (large && ahead->mayGrow != 0) grow(req, ahead);
  if (count > ahead->capacity) return false;
  // To the front, so that one read fetches as much as there is room for.
  const std::int32_t waiting = ahead->end - ahead->begin;
  std::memmove(ahead->bytes, ahead->bytes + ahead->begin,
               static_cast<std::size_t>(waiting));
  ahead->begin = 0;
  ahead->end = waiting;
  return true;
}

char* endOfReadAhead(vesk_request* req) {
  return req->readAhead->bytes + req->readAhead->end;
}

void settleReadAhead(vesk_request* req, std::int32_t sock, std::int32_t count) {
  veskReadAhead* ahead = req->readAhead;
  ahead->sock = sock;
  ahead->end = std::max(ahead->end, ahead->begin + count);
}
