#include "proxy/proxy_service.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "context/read_ahead.h"
#include "context/request_block.h"
#include "context/text.h"
#include "context/vesk_error.h"
#include "proxy/conversation.h"
#include "proxy/proxy_error.h"
#include "proxy/proxy_marshal.h"
#include "proxy/proxy_pool.h"
#include "proxy/wire.h"

// One conversation.
struct ServiceCall {
  vesk_request* req;
  veskProxy* proxy;
  VeskConnection* connection;
  std::int32_t sock;       // of the connection
  std::int32_t* sequence;  // may be null
};

struct CommandRow {
  std::int32_t command;
  bool traced;       // false: the handler traces, once it has read its operand
  const char* name;  // as it stands in the trace line
  Next (*handle)(ServiceCall* call);
};

// A string or block of the conversation, or null.
static char* readOperand(const ServiceCall* call, std::int32_t* outLength) {
  return readData(call->sock, call->req, outLength, call->proxy);
}

static std::int32_t readNumber(const ServiceCall* call, std::int32_t* out) {
  return readWord(call->req, call->sock, call->proxy, out);
}

// Sends the value of a header or variable; one that is absent goes out empty.
static Next onGetHeader(ServiceCall* call) {
  vesk_request* req = call->req;
  RequestBlock name{req, readOperand(call, nullptr)};
  if (!name.bytes) return Next::abort;
  const char* value = req->getHeader(req, name.bytes);
  const std::int32_t result = writeString(req, call->sock, value);
  req->freeHeader(req, value);
  return result < 0 ? Next::abort : Next::readCommand;
}

// Sends the file path of a URI; one without a path gets an empty string.
static Next onGetRealPath(ServiceCall* call) {
  vesk_request* req = call->req;
  RequestBlock uri{req, readOperand(call, nullptr)};
  if (!uri.bytes) return Next::abort;
  RequestBlock path{req, req->getRealPath(req, uri.bytes)};
  if (writeString(req, call->sock, path.bytes) < 0) return Next::abort;
  return Next::readCommand;
}

static Next onPutStatus(ServiceCall* call) {
  vesk_request* req = call->req;
  std::int32_t status = 0;
  if (readNumber(call, &status) < 0) return Next::abort;
  RequestBlock reason{req, readOperand(call, nullptr)};
  if (!reason.bytes) return Next::abort;
  req->trace(req, "  %d %.80s", status, reason.bytes);
  req->setStatus(req, status, reason.bytes);
  return Next::readCommand;
}

// A text that breaks off is no failure: its complete headers stand.
static Next onPutHeader(ServiceCall* call) {
  vesk_request* req = call->req;
  RequestBlock text{req, readOperand(call, nullptr)};
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

static Next onPutHeaderValue(ServiceCall* call) {
  vesk_request* req = call->req;
  RequestBlock name{req, readOperand(call, nullptr)};
  if (!name.bytes) return Next::abort;
  RequestBlock value{req, readOperand(call, nullptr)};
  if (!value.bytes) return Next::abort;
  req->addHeader(req, name.bytes, value.bytes);
  return Next::readCommand;
}

// A block that the browser doesn't take is lost, and the conversation goes on
// until that has happened too often in a row.
static Next onPutClient(ServiceCall* call) {
  vesk_request* req = call->req;
  std::int32_t length = 0;
  RequestBlock body{req, readOperand(call, &length)};
  if (!body.bytes) return Next::abort;
  const std::int32_t result = req->writeClient(req, body.bytes, length);
  req->responseStarted = 1;
  if (result != -1) return Next::readCommand;
  req->lastError = EVESK_CLIENT_DOWN;
  const bool givenUp = req->clientWriteFailures >= kMaxClientWriteFailures;
  return givenUp ? Next::abort : Next::readCommand;
}

static Next onGetData(ServiceCall* call) {
  vesk_request* req = call->req;
  std::int32_t wanted = 0;
  if (readNumber(call, &wanted) < 0) {
    req->log(req, "getData: can't get length");
    return Next::abort;
  }
  const std::int32_t sent = sendPostData(req, wanted, call->connection);
  return sent ? Next::readCommand : Next::abort;
}

// Hands a block to the request, which releases it when it ends. 0, or -1 with
// lastError; then the block stays in its scope.
static std::int32_t keep(RequestBlock* block) {
  if (keepBlock(block->req, block->bytes) < 0) {
    block->req->lastError = ENOBUFS;
    return -1;
  }
  block->bytes = nullptr;
  return 0;
}

// The attribute list refers to both texts, and a later frame of this request
// reads them, so they live as long as the request.
static Next onSetAttribute(ServiceCall* call) {
  vesk_request* req = call->req;
  RequestBlock name{req, readOperand(call, nullptr)};
  if (!name.bytes) return Next::abort;
  std::int32_t length = 0;
  RequestBlock value{req, readOperand(call, &length)};
  if (!value.bytes) return Next::abort;

  const char* keptName = name.bytes;
  const char* keptValue = value.bytes;
  if (keep(&name) < 0 || keep(&value) < 0) return Next::abort;
  const veskAttribute* before = req->attributes;
  req->setAttribute(req, keptName, keptValue, length);
  if (req->attributes == before) {  // no memory for the node
    req->lastError = ENOBUFS;
    return Next::abort;
  }
  req->trace(req, "  %.200s %d bytes", keptName, length);
  return Next::readCommand;
}

static Next onBusy(ServiceCall* call) {
  call->req->lastError = EVESK_BUSY;
  return Next::abort;
}

static Next onPutClusterSeq(ServiceCall* call) {
  return readClusterSequence(call->req, call->proxy,
                             {call->sock, call->sequence, kTraceDetail});
}

// The load value is unsigned on the wire and takes effect at the next selection.
static Next onPutLoadValue(ServiceCall* call) {
  vesk_request* req = call->req;
  std::int32_t word = 0;
  if (readNumber(call, &word) < 0) return Next::abort;
  const std::int64_t weight = static_cast<std::uint32_t>(word);
  setProxyWeight(call->proxy, weight);
  req->trace(req, "    load val: %i", word);  // the 32 bits as the format takes them
  return Next::readCommand;
}

// All that a server may say in a service conversation, by number. PROXY_FINISH
// is missing on purpose: it ends the loop and needs no handler.
constexpr CommandRow kServiceCommands[] = {
    {PROXY_GET_HEADER, true, "PROXY_GET_HEADER", onGetHeader},
    {PROXY_GET_REALPATH, true, "PROXY_GET_REALPATH", onGetRealPath},
    {PROXY_PUT_STATUS, true, "PROXY_PUT_STATUS", onPutStatus},
    {PROXY_PUT_HEADER, true, "PROXY_PUT_HEADER", onPutHeader},
    {PROXY_PUT_CLIENT, true, "PROXY_PUT_CLIENT", onPutClient},
    {PROXY_GET_DATA, true, "PROXY_GET_DATA", onGetData},
    {PROXY_SET_ATTRIBUTE, true, "PROXY_SET_ATTRIBUTE", onSetAttribute},
    {PROXY_PUT_HEADER_VALUE, true, "PROXY_PUT_HEADER_VALUE", onPutHeaderValue},
    {PROXY_BUSY, true, "PROXY_BUSY", onBusy},
    {PROXY_PUT_CLUSTER_SEQ, false, "PROXY_PUT_CLUSTER_SEQ", onPutClusterSeq},
    {PROXY_PUT_LOAD_VALUE, true, "PROXY_PUT_LOAD_VALUE", onPutLoadValue},
};

static Next perform(ServiceCall* call, std::int32_t command) {
  vesk_request* req = call->req;
  const auto* row =
      std::find_if(std::begin(kServiceCommands), std::end(kServiceCommands),
                   [command](const CommandRow& each) { return each.command == command; });
  if (row == std::end(kServiceCommands)) {
    req->log(req, "handleVeskppRequest: bad command: %d <- [%d]", command, call->sock);
    req->lastError = EVESK_PROTOCOL;
    return Next::abort;
  }
  if (row->traced) req->trace(req, "%s <- [%d]", row->name, call->sock);
  return row->handle(call);
}

// Lets the server drive, from its first command on: true when it has finished.
static bool serve(ServiceCall* call, std::int32_t command) {
  while (!endsConversation(command)) {
    if (perform(call, command) == Next::abort) return false;
    if (readCommand(call->req, call->proxy, call->sock, &command) < 0) return false;
  }
  return command == PROXY_FINISH;
}

// Gives the connection back, unless the server has said more than the end: whoever
// came next would take that for its answer.
static void release(const ServiceCall* call) {
  const std::int32_t surplus = countReadAhead(call->req);
  if (surplus == 0)
    return returnVeskConnectionToPool(call->req, call->proxy, call->connection);
  call->req->log(call->req, "%s sent %d bytes behind PROXY_FINISH <- [%d]",
                 call->proxy->name, surplus, call->sock);
  destroyVeskConnection(call->req, call->proxy, call->connection);
}

// The response is complete. A server that sent no body has not started it yet.
static std::int32_t finish(ServiceCall* call) {
  vesk_request* req = call->req;
  req->trace(req, "PROXY_FINISH <- [%d]", call->sock);
  if (req->writeClient(req, nullptr, 0) == -1) req->lastError = EVESK_CLIENT_DOWN;
  release(call);
  return 0;
}

// The page comes first: writing it may change lastError, and the connection is
// judged by lastError as proxyerror leaves it.
static std::int32_t abandon(ServiceCall* call) {
  vesk_request* req = call->req;
  req->traceE(req, kTraceState, "handleVeskppRequest aborting <-- [%d]", call->sock);
  if (req->lastError == ENOBUFS) req->log(req, "error == ENOBUFS");
  proxyerror(req, call->proxy);
  destroyVeskConnection(req, call->proxy, call->connection);
  return -1;
}

// Gets the frame to the server: the connection, with the first command of the
// answer, or null. The frame is gone when this returns.
static VeskConnection* openService(vesk_request* req, veskProxy* proxy, const char* extra,
                                   std::int32_t* outCommand) {
  char* bytes = nullptr;
  const std::int32_t length = buildRequest(req, &bytes, extra);
  if (length <= 0) {
    proxyerror(req, proxy);
    return nullptr;
  }
  RequestBlock frame{req, bytes};
  VeskConnection* connection = sendCommand(proxy, req, frame.bytes, length, outCommand);
  if (!connection) proxyerror(req, proxy);
  return connection;
}

// One attempt: 0 or -1.
static std::int32_t converse(vesk_request* req, veskProxy* proxy, const char* extra,
                             std::int32_t* sequence) {
  std::int32_t command = 0;
  VeskConnection* connection = openService(req, proxy, extra, &command);
  if (!connection) return -1;
  ServiceCall call{req, proxy, connection, connection->socket, sequence};
  return serve(&call, command) ? finish(&call) : abandon(&call);
}

std::int32_t proxy_handleRequest(vesk_request* req, veskProxy* proxy, const char* extra,
                                 std::int32_t* sequence) {
  req->trace(req, "%s proxy_handleRequest()", proxy->name);
  if (sequence) *sequence = -1;
  veskReadAhead ahead;  // of this conversation's socket alone
  startReadAhead(req, &ahead);
  const std::int32_t result = converse(req, proxy, extra, sequence);
  req->readAhead = nullptr;
  return result;
}
