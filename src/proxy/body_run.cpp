#include "proxy/body_run.h"

#include <cerrno>
#include <cstring>

#include "context/memory.h"
#include "context/sockets.h"
#include "proxy/wire.h"

// The block in the read-ahead, where those behind it lie next to it. Null, with `ended`
// set when the line has failed, and else when the block has no room there.
static char* readInPlace(const Conversation* talk, std::int32_t length, bool* ended) {
  vesk_request* req = talk->req;
  if (!makeRoomAhead(req, talk->sock, length)) return nullptr;
  const std::int32_t missing = length - countReadAhead(req);
  if (missing <= 0) {
    if (length > 0) req->trace(req, "read/len/total %d/%d/%d", length, length, length);
  } else if (receiveFully(req, endOfReadAhead(req), missing, talk->sock, talk->proxy) <
             0) {
    *ended = true;
    return nullptr;
  }
  settleReadAhead(req, talk->sock, length);
  return takeAhead(req, talk->sock, length);
}

// A block that is larger than the read-ahead gets memory of its own.
static char* readApart(BodyRun* run) {
  const Conversation* talk = run->talk;
  vesk_request* req = talk->req;
  run->owned = static_cast<char*>(newBlock(req, std::int64_t{run->length} + 1));
  if (!run->owned) req->lastError = ENOBUFS;
  if (!run->owned) return nullptr;
  const std::int32_t read =
      readFully(req, run->owned, run->length, talk->sock, talk->proxy);
  return read < 0 ? nullptr : run->owned;
}

// The length of the next block, once that waits whole; else 0. An empty block only starts
// the response, and is left to come by itself.
static std::int32_t lengthOfNext(const Conversation* talk) {
  if (isPastDeadline(talk->req)) return 0;
  const char* head = peekAhead(talk->req, talk->sock, kFrameHead);
  if (!head || getWord(head) != PROXY_PUT_CLIENT) return 0;
  const std::int32_t length = getWord(head + kWordSize);
  const bool whole = length > 0 && length <= countReadAhead(talk->req) - kFrameHead;
  return whole ? length : 0;
}

// Moves the next block down to the end of the run, over its own head.
static void append(BodyRun* run, std::int32_t length) {
  const Conversation* talk = run->talk;
  const char* block = takeAhead(talk->req, talk->sock, kFrameHead + length) + kFrameHead;
  talk->req->trace(talk->req, "PROXY_PUT_CLIENT <- [%d]", talk->sock);
  std::memmove(run->bytes + run->length, block, static_cast<std::size_t>(length));
  run->length += length;
  ++run->blocks;
}

BodyRun::BodyRun(Conversation* conversation)
    : talk(conversation), bytes(nullptr), length(0), blocks(0), owned(nullptr) {
  if (readNumber(talk, &length) < 0 || length < 0) return;
  blocks = 1;
  bool ended = false;
  bytes = readInPlace(talk, length, &ended);
  if (!bytes && !ended) bytes = readApart(this);
  if (!bytes || owned || length == 0) return;
  while (const std::int32_t next = lengthOfNext(talk)) append(this, next);
}

BodyRun::~BodyRun() {
  if (owned) talk->req->free(talk->req, owned);
}
