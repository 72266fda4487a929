#include "proxy/proxy_service.h"

#include <atomic>
#include <cerrno>
#include <iterator>

#include "context/guards.h"
#include "context/request_block.h"
#include "context/vesk_error.h"
#include "proxy/body_run.h"
#include "proxy/conversation.h"
#include "proxy/proxy_error.h"
#include "proxy/proxy_marshal.h"
#include "proxy/replay.h"
#include "proxy/request_outcome.h"
#include "proxy/wire.h"

// Sends the value of a header or variable; one that is absent goes out empty.
static Next onGetHeader(Conversation* talk) {
  vesk_request* req = talk->req;
  const Operand name{talk};
  if (!name.bytes) return Next::abort;
  const char* value = req->getHeader(req, name.bytes);
  // The value is the host's, and goes back whether it could be sent or not.
  const std::int32_t result = writeString(req, talk->sock, value);
  req->freeHeader(req, value);
  return result < 0 ? Next::abort : Next::readCommand;
}

// Sends the file path of a URI; one without a path gets an empty string.
static Next onGetRealPath(Conversation* talk) {
  vesk_request* req = talk->req;
  const Operand uri{talk};
  if (!uri.bytes) return Next::abort;
  RequestBlock path{req, req->getRealPath(req, uri.bytes)};
  if (writeString(req, talk->sock, path.bytes) < 0) return Next::abort;
  return Next::readCommand;
}

static Next onPutStatus(Conversation* talk) {
  vesk_request* req = talk->req;
  std::int32_t status = 0;
  if (readNumber(talk, &status) < 0) return Next::abort;
  const Operand reason{talk};
  if (!reason.bytes) return Next::abort;
  req->trace(req, "  %d %.80s", status, reason.bytes);
  req->setStatus(req, status, reason.bytes);
  return Next::readCommand;
}

// A text that breaks off is no failure: its complete headers stand.
static Next onPutHeader(Conversation* talk) {
  vesk_request* req = talk->req;
  const Operand text{talk};
  if (!text.bytes) return Next::abort;
  char* name = nullptr;
  char* value = nullptr;
  char* rest = nextHeader(text.bytes, &name, &value);
  while (rest) {
    req->addHeader(req, name, value);
    rest = nextHeader(rest, &name, &value);
  }
  return Next::readCommand;
}

static Next onPutHeaderValue(Conversation* talk) {
  vesk_request* req = talk->req;
  const Operand name{talk};
  if (!name.bytes) return Next::abort;
  const Operand value{talk};
  if (!value.bytes) return Next::abort;
  req->addHeader(req, name.bytes, value.bytes);
  return Next::readCommand;
}

// A block that the browser doesn't take is lost, and the conversation goes on
// until that has happened too often in a row. Of a run that failed each block counts.
static Next onPutClient(Conversation* talk) {
  vesk_request* req = talk->req;
  const BodyRun body{talk};
  if (!body.bytes) return Next::abort;
  const std::int32_t result = req->writeClient(req, body.bytes, body.length);
  // Also after a failed write: part of the block may have gone out, and no page may
  // follow it as if it were the first.
  req->responseStarted = 1;
  noteStage(req, kStageBody);
  if (result != -1) return Next::readCommand;
  req->lastError = EVESK_CLIENT_DOWN;
  // Also when the writes to come go well again: the response lacks this block.
  req->outcome.kind = kOutcomeBroken;
  req->clientWriteFailures += body.blocks - 1;
  const bool givenUp = req->clientWriteFailures >= kMaxClientWriteFailures;
  return givenUp ? Next::abort : Next::readCommand;
}

// The body is read only when the server asks: what it leaves unread stays the host's.
static Next onGetData(Conversation* talk) {
  vesk_request* req = talk->req;
  std::int32_t wanted = 0;
  if (readNumber(talk, &wanted) < 0) {
    req->log(req, "getData: can't get length");
    return Next::abort;
  }
  const std::int32_t sent = sendPostData(req, wanted, talk->connection);
  return sent ? Next::readCommand : Next::abort;
}

// Hands a block to the request, which releases it when it ends. 0, or -1 with
// lastError; then the block stays in its scope.
static std::int32_t keep(RequestBlock* block) {
  if (keepBlock(block->req, block->bytes) < 0) {
    block->req->lastError = ENOBUFS;
    return -1;
  }
  (void)block->handOn();  // it is in the request's hands now
  return 0;
}

// The attribute list refers to both texts, and a later frame of this request
// reads them, so they live as long as the request.
static Next onSetAttribute(Conversation* talk) {
  vesk_request* req = talk->req;
  RequestBlock name{req, readOperand(talk, nullptr)};
  if (!name.bytes) return Next::abort;
  std::int32_t length = 0;
  RequestBlock value{req, readOperand(talk, &length)};
  if (!value.bytes) return Next::abort;

  const char* keptName = name.bytes;
  const char* keptValue = value.bytes;
  if (keep(&name) < 0 || keep(&value) < 0) return Next::abort;
  // setAttribute has no result; a list that hasn't grown tells that it failed.
  const veskAttribute* before = req->attributes;
  req->setAttribute(req, keptName, keptValue, length);
  if (req->attributes == before) {  // no memory for the node
    req->lastError = ENOBUFS;
    return Next::abort;
  }
  req->trace(req, "  %.200s %d bytes", keptName, length);
  return Next::readCommand;
}

// A busy server is well: its connection is dropped, and no idle one with it.
static Next onBusy(Conversation* talk) {
  talk->req->lastError = EVESK_BUSY;
  noteServerBusy(talk->req);
  return Next::abort;
}

// The load value is unsigned on the wire and takes effect at the next selection.
static Next onPutLoadValue(Conversation* talk) {
  vesk_request* req = talk->req;
  std::int32_t word = 0;
  if (readNumber(talk, &word) < 0) return Next::abort;
  const std::int64_t weight = static_cast<std::uint32_t>(word);
  // Without a lock: whoever chooses sees the old weight or the new one, and both were
  // true.
  setProxyWeight(talk->proxy, weight);
  req->trace(req, "    load val: %i", word);  // the 32 bits as the format takes them
  return Next::readCommand;
}

// All that a server may say in a service conversation, by number.
constexpr CommandRow kServiceCommands[] = {
    {PROXY_GET_HEADER, "PROXY_GET_HEADER", onGetHeader},
    {PROXY_GET_REALPATH, "PROXY_GET_REALPATH", onGetRealPath},
    {PROXY_PUT_STATUS, "PROXY_PUT_STATUS", onPutStatus},
    {PROXY_PUT_HEADER, "PROXY_PUT_HEADER", onPutHeader},
    {PROXY_PUT_CLIENT, "PROXY_PUT_CLIENT", onPutClient},
    {PROXY_GET_DATA, "PROXY_GET_DATA", onGetData},
    {PROXY_SET_ATTRIBUTE, "PROXY_SET_ATTRIBUTE", onSetAttribute},
    {PROXY_PUT_HEADER_VALUE, "PROXY_PUT_HEADER_VALUE", onPutHeaderValue},
    {PROXY_BUSY, "PROXY_BUSY", onBusy},
    {PROXY_PUT_CLUSTER_SEQ, nullptr, onPutClusterSeq},
    {PROXY_PUT_LOAD_VALUE, "PROXY_PUT_LOAD_VALUE", onPutLoadValue},
};

static void refuseCommand(Conversation* talk) {
  talk->req->log(talk->req, "handleVeskppRequest: bad command: %d <- [%d]", talk->command,
                 talk->sock);
  talk->req->lastError = EVESK_PROTOCOL;
}

// The response is complete. A server that sent no body has not started it yet.
static void finishService(Conversation* talk) {
  vesk_request* req = talk->req;
  noteStage(req, kStageEnd);
  req->trace(req, "PROXY_FINISH <- [%d]", talk->sock);
  if (req->writeClient(req, nullptr, 0) == -1) req->lastError = EVESK_CLIENT_DOWN;
}

// What writing to the browser comes to says nothing about the server.
static void tellBrowser(const Conversation* talk) {
  const std::int32_t cause = talk->req->lastError;
  proxyerror(talk->req, talk->proxy);
  if (guarded(talk->req, Guard::blame)) talk->req->lastError = cause;
}

// The page comes before the connection goes: writing it may change lastError, and the
// server is judged by lastError as proxyerror leaves it.
static void abandonService(Conversation* talk) {
  vesk_request* req = talk->req;
  req->traceE(req, kTraceState, "handleVeskppRequest aborting <-- [%d]", talk->sock);
  if (req->lastError == ENOBUFS) req->log(req, "error == ENOBUFS");
  tellBrowser(talk);
}

constexpr ConversationKind kServiceConversation = {
    .rows = kServiceCommands,
    .count = std::size(kServiceCommands),
    .sequenceTraceFlag = kTraceDetail,
    .refuse = refuseCommand,
    .finish = finishService,
    .abandon = abandonService,
};

// Gets the frame to the server: 0, or -1. The frame is gone when this returns, so that
// a long conversation doesn't hold it.
static std::int32_t openService(Conversation* talk, const char* extra) {
  vesk_request* req = talk->req;
  char* bytes = nullptr;
  const std::int32_t length = buildRequest(req, &bytes, extra);
  if (length <= 0) return -1;
  const RequestBlock frame{req, bytes};
  return openConversation(talk, frame.bytes, length);
}

// One attempt on a server that takes it.
static std::int32_t attempt(Conversation* talk, const char* extra) {
  const ConversationScope scope{talk->req};
  if (openService(talk, extra) == 0) {
    noteStage(talk->req, kStageHead);
    return runConversation(talk);
  }
  proxyerror(talk->req, talk->proxy);
  return -1;
}

// Counts one conversation more, unless the server has as many as the option allows. Who
// is refused never counts: a crowd of those would keep the server busy by itself.
static bool enterServer(veskProxy* proxy) {
  const std::atomic_ref<std::int32_t> running(proxy->conversations);
  std::int32_t others = running.load(std::memory_order_relaxed);
  do {
    if (veskMaxPerServer != 0 && others >= veskMaxPerServer) return false;
  } while (!running.compare_exchange_weak(others, others + 1, std::memory_order_relaxed));
  return true;
}

// Before the server is asked: another may be idle.
static std::int32_t refuseAsBusy(Conversation* talk) {
  vesk_request* req = talk->req;
  req->trace(req, "%s has %d conversations, counts as busy", talk->proxy->name,
             veskMaxPerServer);
  req->lastError = EVESK_BUSY;
  proxyerror(req, talk->proxy);
  return -1;
}

std::int32_t proxy_handleRequest(vesk_request* req, veskProxy* proxy, const char* extra,
                                 std::int32_t* sequence) {
  req->trace(req, "%s proxy_handleRequest()", proxy->name);
  if (sequence) *sequence = -1;
  beginReplay(req);
  Conversation talk{};
  talk.kind = &kServiceConversation;
  talk.req = req;
  talk.proxy = proxy;
  talk.sequence = sequence;

  if (!enterServer(proxy)) return refuseAsBusy(&talk);
  const std::int32_t result = attempt(&talk, extra);
  std::atomic_ref(proxy->conversations).fetch_sub(1, std::memory_order_relaxed);
  return result;
}
