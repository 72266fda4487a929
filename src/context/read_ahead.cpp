#include "context/read_ahead.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

// The bytes aren't cleared: only those between begin and end are ever read.
void startReadAhead(vesk_request* req, veskReadAhead* ahead) {
  ahead->sock = -1;
  ahead->begin = ahead->end = 0;
  req->readAhead = ahead;
}

std::int32_t countReadAhead(const vesk_request* req) {
  return req->readAhead ? req->readAhead->end - req->readAhead->begin : 0;
}

void dropReadAhead(vesk_request* req, std::int32_t sock) {
  if (req->readAhead && req->readAhead->sock == sock) startReadAhead(req, req->readAhead);
}

static ssize_t take(veskReadAhead* ahead, void* buffer, std::size_t wanted) {
  const auto waiting = static_cast<std::size_t>(ahead->end - ahead->begin);
  const std::size_t count = std::min(wanted, waiting);
  std::memcpy(buffer, ahead->bytes + ahead->begin, count);
  ahead->begin += static_cast<std::int32_t>(count);
  return static_cast<ssize_t>(count);
}

ssize_t recvAhead(vesk_request* req, std::int32_t sock, void* buffer,
                  std::size_t wanted) {
  veskReadAhead* ahead = req->readAhead;
  const bool waiting = countReadAhead(req) > 0;
  if (waiting && ahead->sock == sock) return take(ahead, buffer, wanted);
  // A second socket must not displace what waits of the first, and much is better
  // read where it belongs.
  if (!ahead || waiting || wanted >= sizeof ahead->bytes)
    return recv(sock, buffer, wanted, 0);

  const ssize_t result = recv(sock, ahead->bytes, sizeof ahead->bytes, 0);
  if (result <= 0) return result;
  // A failed or empty read has left what stood here alone, so that its owner is still
  // named.
  ahead->sock = sock;
  ahead->begin = 0;
  ahead->end = static_cast<std::int32_t>(result);
  return take(ahead, buffer, wanted);
}
