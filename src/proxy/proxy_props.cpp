#include "proxy/proxy_props.h"

#include <cerrno>
#include <cstring>
#include <iterator>

#include "context/held_requests.h"
#include "context/memory.h"
#include "context/request_block.h"
#include "context/text.h"
#include "context/vesk_error.h"
#include "properties/vesk_property.h"
#include "proxy/conversation.h"
#include "proxy/wire.h"

// A set that lost a pair to exhausted memory is no set: its user would take servers
// or mappings for gone that the server has named.
static Next onPutProps(Conversation* talk) {
  vesk_request* req = talk->req;
  RequestBlock text{req, readOperand(talk, nullptr)};
  if (!text.bytes) return Next::abort;
  if (std::strcmp(talk->set, kClusterSet) == 0)
    req->traceE(req, kTraceState, "clustered-servers: %s", text.bytes);
  freeProperties(req, talk->answer);
  talk->answer = parseProperties(req, text.bytes);
  if (talk->answer) return Next::readCommand;
  req->lastError = ENOBUFS;
  return Next::abort;
}

static Next onBusy(Conversation* talk) {
  vesk_request* req = talk->req;
  req->log(req, "Vesk unable to fetch %.250s <- [%d], proxy busy", talk->set, talk->sock);
  // No connection failed: the idle ones of this server stay.
  req->lastError = EVESK_BUSY;
  return Next::abort;
}

// All that a server may say in a properties conversation.
constexpr CommandRow kPropsCommands[] = {
    {PROXY_PUT_PROPS, "PROXY_PUT_PROPS", onPutProps},
    {PROXY_BUSY, nullptr, onBusy},
    {PROXY_PUT_CLUSTER_SEQ, nullptr, onPutClusterSeq},
};

// lastError stays as it is: nobody shows a page about properties.
static void refuseCommand(Conversation* talk) {
  talk->req->log(talk->req, "Unexpected command %d <- [%d] while fetching %.250s",
                 talk->command, talk->sock, talk->set);
}

// A set has no end of its own to tell anybody.
static void finishProps(Conversation* /*talk*/) {}

static void abandonProps(Conversation* talk) {
  talk->req->traceE(talk->req, kTraceState, "fetchProps aborting");
}

constexpr ConversationKind kPropsConversation = {
    .rows = kPropsCommands,
    .count = std::size(kPropsCommands),
    .sequenceTraceFlag = kTraceState,
    .refuse = refuseCommand,
    .finish = finishProps,
    .abandon = abandonProps,
};

// Sends the frame that asks for the set: 0, or -1 with lastError.
static std::int32_t askForSet(Conversation* talk) {
  vesk_request* req = talk->req;
  const std::int64_t size = kFrameHead + textLength(talk->set);
  const RequestBlock frame{req, newBlock(req, size)};
  if (!frame.bytes) {
    req->lastError = ENOBUFS;
    return -1;
  }
  const std::int32_t position = appendWord(frame.bytes, 0, PROXY_GET_PROPS);
  const std::int32_t length = appendString(frame.bytes, position, talk->set);
  return openConversation(talk, frame.bytes, length);
}

propertyTable* fetchProps(vesk_request* req, veskProxy* proxy, const char* set,
                          std::int32_t* sequence) {
  if (sequence) *sequence = -1;
  const QuestionScope question(req, proxy->name);
  // From here on the socket is read ahead: what stands behind the set is found before
  // another question could take it for its answer.
  const ConversationScope scope{req};
  Conversation talk{};
  talk.kind = &kPropsConversation;
  talk.req = req;
  talk.proxy = proxy;
  talk.sequence = sequence;
  talk.set = set;
  if (askForSet(&talk) < 0) {
    req->trace(req, "%s could not fetch %.250s", proxy->name, set);
    return nullptr;
  }
  req->trace(req, "PROXY_GET_PROPS(%.250s) -> [%d]", set, talk.sock);
  // Null here is no failure of the line: the server had nothing to say.
  if (runConversation(&talk) == 0) return talk.answer;
  freeProperties(req, talk.answer);
  return nullptr;
}
