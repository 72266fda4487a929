#include "embedded/serve.h"

#include <cstring>
#include <new>

#include "embedded/pages.h"
#include "layer/parameters.h"
#include "layer/request_setup.h"

namespace host {

constexpr int kFirstRedirect = 300;
constexpr char kInternalType[] = "vesk-internal/";

// A marker type that no function took must not reach the browser.
static void dropInternalType(HostRequest* request) {
  const char* type = findValue(request->srvhdrs, "content-type");
  if (!type || std::strncmp(type, kInternalType, sizeof(kInternalType) - 1) != 0) return;
  freeParameter(findParameter(request->srvhdrs, "content-type", true));
}

static bool serveStatic(ServerState* server, HostRequest* request) {
  dropInternalType(request);
  const char* path = findValue(request->vars, "path");
  const char* uri = findValue(request->reqpb, "uri");
  const std::string& root = server->config->documentRoot;
  if (path) return sendStaticFile(request, path);
  return sendStaticFile(request, root.empty() || !uri ? "" : root + uri);
}

// A status that tells of success can't stand on a page about a failure.
static bool serveAborted(HostRequest* request) {
  if (request->responseStarted) return false;
  bool recorded = request->status_num >= kFirstRedirect;
  int status = recorded ? request->status_num : 500;
  sendErrorPage(request, status, recorded ? request->reason : nullptr);
  return true;
}

static int runStages(const Stages& stages, HostRequest* request) {
  int result = stages.runStage(Stage::nameTrans, &request->session, request);
  if (result != REQ_PROCEED && result != REQ_NOACTION) return result;
  result = stages.runStage(Stage::objectType, &request->session, request);
  if (result != REQ_PROCEED && result != REQ_NOACTION) return result;
  return stages.runStage(Stage::service, &request->session, request);
}

// Gives a function's result the response that it stands for: false when the
// response can't be called complete.
static bool answer(ServerState* server, HostRequest* request, int result) {
  if (result == REQ_NOACTION && !request->responseStarted) {
    return serveStatic(server, request);
  }
  if (result != REQ_PROCEED && result != REQ_NOACTION) return serveAborted(request);
  if (request->responseStarted) return true;
  // Served without a body: the head is still to be sent.
  request->responseStarted = true;
  if (request->status_num == 0) request->status_num = 200;
  return request->exchange->startResponse(request) != REQ_ABORTED;
}

static bool serve(ServerState* server, HttpExchange* exchange, HostRequest* request) {
  if (!openRequest(request, exchange)) return false;
  int refusal = exchange->readHead(request);
  if (refusal) {
    exchange->closeAfterwards();
    sendErrorPage(request, refusal, nullptr);
    return false;
  }
  int result = runStages(*server->stages, request);
  bool complete = answer(server, request, result);
  return complete && result != REQ_EXIT;
}

int serveRequest(ServerState* server, mg_connection* connection) try {
  HttpExchange exchange(server, connection);
  HostRequest request;
  RunningRequest running(&request);
  bool complete = serve(server, &exchange, &request);
  exchange.finish(complete);
  return request.status_num > 0 ? request.status_num : 500;
} catch (const std::bad_alloc&) {
  mg_disable_connection_keep_alive(connection);
  return 500;
}

}  // namespace host
