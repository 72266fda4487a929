#include "proxy/replay.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "context/guards.h"
#include "context/memory.h"
#include "context/text.h"

// Methods that a server may carry out twice with the effect of once.
constexpr const char* kRepeatable[] = {"GET",   "HEAD", "OPTIONS",
                                       "TRACE", "PUT",  "DELETE"};

bool isRepeatable(const char* method) {
  const auto same = [method](const char* each) { return std::strcmp(each, method) == 0; };
  return method && std::any_of(std::begin(kRepeatable), std::end(kRepeatable), same);
}

// The body starts over, and what this attempt does to the marks can be told from what
// those before it did.
void beginReplay(vesk_request* req) {
  veskReplay* replay = &req->replay;
  replay->given = 0;
  replay->frameSentBefore = replay->frameSent;
  replay->bodyReadBefore = replay->bodyRead;
}

void noteFrameSent(vesk_request* req) {
  req->replay.frameSent = 1;
}

// What an attempt before this one has sent stays sent. And a server that took the held
// part of a body has taken bytes as well.
void noteServerBusy(vesk_request* req) {
  veskReplay* replay = &req->replay;
  const bool tookBody = replay->bodyRead != replay->bodyReadBefore ||
                        replay->given != 0 || replay->brokeOff;
  if (!tookBody) replay->frameSent = replay->frameSentBefore;
}

static std::int32_t giveHeld(veskReplay* replay, char* buffer, std::int32_t length) {
  const std::int32_t count = std::min(length, replay->heldSize - replay->given);
  std::memcpy(buffer, replay->held + replay->given, static_cast<std::size_t>(count));
  replay->given += count;
  return count;
}

// Keeps what was just read, as far as it follows what is held and there is room. What
// isn't kept makes `bodyRead` larger than what is held, and that ends all replays.
static void hold(vesk_request* req, const char* bytes, std::int32_t count) {
  veskReplay* replay = &req->replay;
  const bool follows = replay->bodyRead == replay->heldSize;
  replay->bodyRead += count;
  if (!follows || replay->bodyRead > kMaxHeldBody) return;
  // As a whole at once: a body that is worth holding mostly fills it, and growing would
  // copy what is held again and again.
  if (!replay->held) replay->held = static_cast<char*>(newBlock(req, kMaxHeldBody));
  if (!replay->held) return;
  std::memcpy(replay->held + replay->heldSize, bytes, static_cast<std::size_t>(count));
  replay->heldSize += count;
  replay->given = replay->heldSize;
}

std::int32_t readBody(vesk_request* req, char* buffer, std::int32_t length) {
  veskReplay* replay = &req->replay;
  if (replay->given < replay->heldSize && length > 0)
    return giveHeld(replay, buffer, length);
  const std::int32_t count = std::min(req->getPostData(req, buffer, length), length);
  // A host tells once that the browser broke off, and then of an end: to the next server
  // what there is would look whole.
  if (count < 0) replay->brokeOff = 1;
  if (count <= 0) return count;
  // Of a method that never goes out twice nothing needs to be kept.
  if (guarded(req, Guard::replay) && isRepeatable(req->method)) {
    hold(req, buffer, count);
  } else {
    replay->bodyRead += count;
  }
  return count;
}

// Every byte that was read must be held: a gap would reach the next server as another
// body.
bool mayReplay(const vesk_request* req) {
  const veskReplay& replay = req->replay;
  if (!guarded(req, Guard::replay) || !replay.frameSent) return true;
  return isRepeatable(req->method) && replay.bodyRead == replay.heldSize &&
         !replay.brokeOff;
}

void reportNoReplay(vesk_request* req, const veskProxy* proxy) {
  // The pool asks first and dispatch asks again: the operator needs to know once.
  if (req->replay.reported) return;
  req->replay.reported = 1;
  if (isRepeatable(req->method)) {
    req->log(req, "%s failed, %.20s not sent again: its body can't be read twice",
             proxy->name, req->method);
  } else {
    req->log(req, "%s failed, %.20s not sent again: it may have been carried out",
             proxy->name, orElse(req->method, "request"));
  }
}

void endReplay(vesk_request* req) {
  if (req->replay.held) req->free(req, req->replay.held);
  req->replay.held = nullptr;
}
