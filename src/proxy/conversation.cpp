#include "proxy/conversation.h"

#include "context/vesk_error.h"
#include "proxy/proxy_pool.h"
#include "proxy/replay.h"
#include "proxy/request_outcome.h"
#include "proxy/wire.h"

// A conversation lives on behind a receive limit while its server takes pings.
static std::int32_t pingServer(vesk_request* req, veskProxy* proxy) {
  return proxy->sendPing(proxy, req);
}

ConversationScope::ConversationScope(vesk_request* owner)
    : req(owner), outerDeadline(owner->deadline) {
  startReadAhead(req, &ahead);
  if (req->conversationLimit != 0) {
    req->deadline = req->ticks(req) + req->conversationLimit;
  } else {
    req->pingServer = pingServer;
  }
}

// The buffer goes with the scope: nothing may find it in the record any more.
ConversationScope::~ConversationScope() {
  endReadAhead(req, &ahead);
  req->pingServer = nullptr;
  req->deadline = outerDeadline;
}

// One try to open a conversation on a connection.
struct Opening {
  const char* frame;
  std::int32_t length;
  std::int32_t* outCommand;
  bool sent;      // the frame went out, so that what failed was the answer
  bool isAction;  // carrying it out twice may do harm: a request, and no question
};

static bool tryOpening(vesk_request* req, veskProxy* proxy, std::int32_t sock,
                       void* context) {
  auto* opening = static_cast<Opening*>(context);
  const std::int64_t before = req->bytesSent;
  opening->sent = sendBytes(req, opening->frame, opening->length, sock) >= 0;
  // A send that failed may have left the first part of the frame with the server.
  const bool anySent = opening->sent || req->bytesSent != before;
  if (opening->isAction && anySent) noteFrameSent(req);
  if (opening->isAction) noteStage(req, kStageWait);
  return opening->sent && readWord(req, sock, proxy, opening->outCommand) == 0;
}

// A pooled connection may have gone stale while it lay idle, which is nobody's
// failure: only what happens on a new one is worth a log line.
static void reportFailedOpening(vesk_request* req, veskProxy* proxy, std::int32_t sock,
                                bool pooled, const void* context) {
  const bool sent = static_cast<const Opening*>(context)->sent;
  if (pooled && !sent)
    req->traceE(req, kTraceState, "%s send was pooled, trying again", proxy->name);
  if (!pooled && sent)
    req->log(req, "Vesk closed connection. [%d] dropped while sending command", sock);
}

static bool mayOpenAgain(vesk_request* req, veskProxy* proxy, const void* context) {
  if (!static_cast<const Opening*>(context)->isAction || mayReplay(req)) return true;
  reportNoReplay(req, proxy);
  return false;
}

VeskConnection* sendCommand(veskProxy* proxy, vesk_request* req, const char* frame,
                            std::int32_t length, std::int32_t* outCommand) {
  const bool isAction = getWord(frame) == PROXY_SERVICE_40;
  Opening opening{frame, length, outCommand, false, isAction};
  return takeConnection(proxy, req,
                        {tryOpening, reportFailedOpening, mayOpenAgain, &opening});
}

std::int32_t openConversation(Conversation* talk, const char* frame,
                              std::int32_t length) {
  talk->connection = sendCommand(talk->proxy, talk->req, frame, length, &talk->command);
  // Without one there is nothing to end: the caller tells the browser, or gives up its
  // set.
  if (!talk->connection) return -1;
  talk->sock = talk->connection->socket;
  return 0;
}

Operand::Operand(const Conversation* talk)
    : req(talk->req),
      bytes(readDataInto(talk->sock, req, nullptr, talk->proxy, {room, sizeof room})) {}

Operand::~Operand() {
  if (bytes && bytes != room) req->free(req, bytes);
}

char* readOperand(const Conversation* talk, std::int32_t* outLength) {
  return readData(talk->sock, talk->req, outLength, talk->proxy);
}

std::int32_t readNumber(const Conversation* talk, std::int32_t* out) {
  return readWord(talk->req, talk->sock, talk->proxy, out);
}

Next onPutClusterSeq(Conversation* talk) {
  vesk_request* req = talk->req;
  std::int32_t number = 0;
  if (readNumber(talk, &number) < 0) {
    req->trace(req, "PROXY_PUT_CLUSTER_SEQ <- [%d]", talk->sock);
    req->log(req, "Failed to read cluster update from %s", talk->proxy->name);
    return Next::abort;
  }
  req->traceE(req, talk->kind->sequenceTraceFlag, "PROXY_PUT_CLUSTER_SEQ <- [%d] seq %d",
              talk->sock, number);
  // The last number counts: a server may send a newer one while it answers.
  if (talk->sequence) *talk->sequence = number;
  return Next::readCommand;
}

// A dozen rows at most: a walk is as quick as any table.
static const CommandRow* findRow(const ConversationKind* kind, std::int32_t command) {
  for (std::size_t i = 0; i < kind->count; ++i)
    if (kind->rows[i].command == command) return &kind->rows[i];
  return nullptr;
}

static Next perform(Conversation* talk) {
  const CommandRow* row = findRow(talk->kind, talk->command);
  if (!row) {
    talk->kind->refuse(talk);
    return Next::abort;
  }
  if (row->name) talk->req->trace(talk->req, "%s <- [%d]", row->name, talk->sock);
  return row->handle(talk);
}

static std::int32_t readCommand(Conversation* talk) {
  if (readNumber(talk, &talk->command) == 0) return 0;
  // Said here and not by the reader of words: only between commands is a lost connection
  // worth its own line; within one the handler's failure tells.
  talk->req->log(talk->req, "command error: %s <- [%d]",
                 describeError(talk->req->lastError), talk->sock);
  return -1;
}

// PROXY_FINISH ends a conversation well; a word of 0 or below ends it too, and says
// nothing more.
static bool isEnd(std::int32_t command) {
  return command <= 0 || command == PROXY_FINISH;
}

// True when the server has finished: only then its answer counts as whole.
static bool serveCommands(Conversation* talk) {
  while (!isEnd(talk->command)) {
    if (perform(talk) == Next::abort) return false;
    if (readCommand(talk) < 0) return false;
  }
  // A word of 0 or below ends it as well, and leaves no error: the page then calls it a
  // protocol error.
  return talk->command == PROXY_FINISH;
}

// Gives the connection back, unless the server has said more than the end: whoever
// came next would take that for its own answer.
static void giveBack(Conversation* talk) {
  vesk_request* req = talk->req;
  const std::int32_t surplus = countReadAhead(req);
  if (surplus == 0) return returnVeskConnectionToPool(req, talk->proxy, talk->connection);
  req->log(req, "%s sent %d bytes behind PROXY_FINISH <- [%d]", talk->proxy->name,
           surplus, talk->sock);
  destroyVeskConnection(req, talk->proxy, talk->connection);
}

std::int32_t runConversation(Conversation* talk) {
  const bool finished = serveCommands(talk);
  if (finished) {
    talk->kind->finish(talk);
    giveBack(talk);
  } else {
    talk->kind->abandon(talk);
    destroyVeskConnection(talk->req, talk->proxy, talk->connection);
  }
  // Whoever still looks must not find a record that another thread may use by now.
  talk->connection = nullptr;
  return finished ? 0 : -1;
}
