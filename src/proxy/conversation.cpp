#include "proxy/conversation.h"

#include "context/vesk_error.h"
#include "proxy/proxy_pool.h"
#include "proxy/wire.h"

// A conversation lives on behind a receive limit while its server takes pings.
static std::int32_t pingServer(vesk_request* req, veskProxy* proxy) {
  return proxy->sendPing(proxy, req);
}

enum class Opening { answered, sendFailed, noAnswer };

struct OpeningFrame {
  const char* bytes;
  std::int32_t length;
};

static Opening openConversation(vesk_request* req, veskProxy* proxy, std::int32_t sock,
                                const OpeningFrame& frame, std::int32_t* outCommand) {
  if (sendBytes(req, frame.bytes, frame.length, sock) < 0) return Opening::sendFailed;
  if (readWord(req, sock, proxy, outCommand) < 0) return Opening::noAnswer;
  return Opening::answered;
}

VeskConnection* sendCommand(veskProxy* proxy, vesk_request* req, const char* frame,
                            std::int32_t length, std::int32_t* outCommand) {
  req->pingServer = pingServer;
  // No counter is needed: each pass that goes on has used up a pooled connection,
  // and a new one ends the loop either way.
  for (;;) {
    VeskConnection* connection = getVeskConnectionFromPool(proxy, req);
    if (!connection) return nullptr;
    const bool pooled = connection->next != nullptr;
    const std::int32_t sock = connection->socket;

    const Opening outcome =
        openConversation(req, proxy, sock, {frame, length}, outCommand);
    if (outcome == Opening::answered) return connection;
    destroyVeskConnection(req, proxy, connection);

    if (pooled && outcome == Opening::sendFailed)
      req->traceE(req, kTraceState, "%s send was pooled, trying again", proxy->name);
    if (!pooled && outcome == Opening::noAnswer)
      req->log(req, "Vesk closed connection. [%d] dropped while sending command", sock);
    if (!pooled) return nullptr;
  }
}

std::int32_t readCommand(vesk_request* req, veskProxy* proxy, std::int32_t sock,
                         std::int32_t* outCommand) {
  if (readWord(req, sock, proxy, outCommand) == 0) return 0;
  req->log(req, "command error: %s <- [%d]", describeError(req->lastError), sock);
  return -1;
}

bool endsConversation(std::int32_t command) {
  return command <= 0 || command == PROXY_FINISH;
}

Next readClusterSequence(vesk_request* req, veskProxy* proxy,
                         const ClusterSequence& sequence) {
  std::int32_t number = 0;
  if (readWord(req, sequence.sock, proxy, &number) < 0) {
    req->trace(req, "PROXY_PUT_CLUSTER_SEQ <- [%d]", sequence.sock);
    req->log(req, "Failed to read cluster update from %s", proxy->name);
    return Next::abort;
  }
  req->traceE(req, sequence.traceFlag, "PROXY_PUT_CLUSTER_SEQ <- [%d] seq %d",
              sequence.sock, number);
  if (sequence.out) *sequence.out = number;
  return Next::readCommand;
}
