#include "embedded/run_request.h"

#include <new>

#include "embedded/pages.h"
#include "layer/judge.h"
#include "layer/parameters.h"
#include "layer/request_setup.h"
#include "layer/status.h"

namespace host {

static void dropInternalType(HostRequest* request) {
  if (!isInternalType(findValue(request->srvhdrs, "content-type"))) return;
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

static bool serveFailure(HostRequest* request) {
  const FailureHead head = failureHead(request->status_num, request->reason);
  sendErrorPage(request, head.status, head.reason);
  return true;
}

static int runStages(const Stages& stages, HostRequest* request) {
  for (const Stage stage : {Stage::nameTrans, Stage::objectType}) {
    const int result = stages.runStage(stage, &request->session, request);
    if (judgeStage(result) == StageVerdict::failed) return result;
  }
  return stages.runStage(Stage::service, &request->session, request);
}

// Gives the browser what the stages have come to: false when the response can't
// be called complete.
static bool giveAnswer(ServerState* server, HostRequest* request, int result) {
  switch (judgeService({result, request->responseStarted})) {
    case Answer::none:
      return serveStatic(server, request);
    case Answer::failure:
      return serveFailure(request);
    case Answer::bare:
      return startResponse(request) != REQ_ABORTED;
    case Answer::whole:
      return true;
    case Answer::broken:
      break;
  }
  return false;
}

// Without memory for the records there is nobody to ask and nothing to answer
// with: the connection just ends.
static bool readAndAnswer(ServerState* server, HttpExchange* exchange,
                          HostRequest* request) {
  if (!openRequest(request, exchange)) return false;
  int refusal = exchange->readHead(request);
  if (refusal) {
    exchange->closeAfterwards();
    sendErrorPage(request, refusal, nullptr);
    return false;
  }
  const int result = runStages(*server->stages, request);
  const bool complete = giveAnswer(server, request, result);
  return complete && !endsConnection(result);
}

int runRequest(ServerState* server, mg_connection* connection) try {
  HttpExchange exchange(server, connection);
  HostRequest request;
  RunningRequest running(&request);
  bool complete = readAndAnswer(server, &exchange, &request);
  exchange.finish(complete);
  return request.status_num > 0 ? request.status_num : kServerError;
} catch (const std::bad_alloc&) {
  mg_disable_connection_keep_alive(connection);
  return kServerError;
}

}  // namespace host
