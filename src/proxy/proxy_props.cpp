#include "proxy/proxy_props.h"

#include <cerrno>
#include <climits>
#include <cstring>

#include "context/request_block.h"
#include "context/text.h"
#include "context/vesk_error.h"
#include "properties/vesk_property.h"
#include "proxy/conversation.h"
#include "proxy/proxy_pool.h"
#include "proxy/wire.h"

// One conversation.
struct PropsCall {
  vesk_request* req;
  veskProxy* proxy;
  const char* set;
  std::int32_t* sequence;  // may be null
  std::int32_t sock;
  propertyTable* answer;  // owned; the last one that came, or null
};

struct PropsCommandRow {
  std::int32_t command;
  Next (*handle)(PropsCall* call);
};

static Next onPutProps(PropsCall* call) {
  vesk_request* req = call->req;
  req->trace(req, "PROXY_PUT_PROPS <- [%d]", call->sock);
  RequestBlock text{req, readData(call->sock, req, nullptr, call->proxy)};
  if (!text.bytes) return Next::abort;
  if (std::strcmp(call->set, "clustered-servers") == 0)
    req->traceE(req, kTraceState, "clustered-servers: %s", text.bytes);
  propertyTable* earlier = call->answer;
  call->answer = parseProperties(req, text.bytes);
  freeProperties(req, earlier);
  return Next::readCommand;
}

static Next onPutClusterSeq(PropsCall* call) {
  return readClusterSequence(call->req, call->proxy,
                             {call->sock, call->sequence, kTraceState});
}

static Next onBusy(PropsCall* call) {
  vesk_request* req = call->req;
  req->log(req, "Vesk unable to fetch %.250s <- [%d], proxy busy", call->set, call->sock);
  req->lastError = EVESK_BUSY;
  return Next::abort;
}

// All that a server may say in a properties conversation, but for PROXY_FINISH,
// which ends it.
constexpr PropsCommandRow kPropsCommands[] = {
    {PROXY_PUT_PROPS, onPutProps},
    {PROXY_BUSY, onBusy},
    {PROXY_PUT_CLUSTER_SEQ, onPutClusterSeq},
};

static Next perform(PropsCall* call, std::int32_t command) {
  for (const PropsCommandRow& row : kPropsCommands)
    if (row.command == command) return row.handle(call);
  call->req->log(call->req, "Unexpected command %d <- [%d] while fetching %.250s",
                 command, call->sock, call->set);
  return Next::abort;
}

// True when the server has finished: only then the answer counts.
static bool converse(PropsCall* call, std::int32_t command) {
  while (!endsConversation(command)) {
    if (perform(call, command) == Next::abort) return false;
    if (readCommand(call->req, call->proxy, call->sock, &command) < 0) return false;
  }
  return command == PROXY_FINISH;
}

// Sends the frame that asks for a set: the connection, or null with lastError.
static VeskConnection* askForSet(vesk_request* req, veskProxy* proxy, const char* set,
                                 std::int32_t* outCommand) {
  const std::int64_t size = kFrameHead + textLength(set);
  if (size > INT_MAX) return nullptr;
  const auto length = static_cast<std::int32_t>(size);
  RequestBlock frame{req, req->malloc(req, length)};
  if (!frame.bytes) {
    req->lastError = ENOBUFS;
    return nullptr;
  }
  (void)appendString(frame.bytes, appendWord(frame.bytes, 0, PROXY_GET_PROPS), set);
  return sendCommand(proxy, req, frame.bytes, length, outCommand);
}

propertyTable* fetchProps(vesk_request* req, veskProxy* proxy, const char* set,
                          std::int32_t* sequence) {
  if (sequence) *sequence = -1;
  std::int32_t command = 0;
  VeskConnection* connection = askForSet(req, proxy, set, &command);
  if (!connection) {
    req->trace(req, "%s could not fetch %.250s", proxy->name, set);
    return nullptr;
  }
  req->trace(req, "PROXY_GET_PROPS(%.250s) -> [%d]", set, connection->socket);

  PropsCall call{req, proxy, set, sequence, connection->socket, nullptr};
  if (converse(&call, command)) {
    returnVeskConnectionToPool(req, proxy, connection);
    return call.answer;
  }
  req->traceE(req, kTraceState, "fetchProps aborting");
  destroyVeskConnection(req, proxy, connection);
  freeProperties(req, call.answer);
  return nullptr;
}
