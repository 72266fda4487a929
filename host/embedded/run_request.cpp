#include "embedded/run_request.h"

#include <new>

#include "embedded/pages.h"
#include "layer/judge.h"
#include "layer/outcome.h"
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

static void serveFailure(HostRequest* request) {
  const FailureHead head = failureHead(request->status_num, request->reason);
  sendErrorPage(request, head.status, head.reason);
}

static int runStages(const Stages& stages, HostRequest* request) {
  for (const Stage stage : {Stage::nameTrans, Stage::objectType}) {
    const int result = stages.runStage(stage, &request->session, request);
    if (judgeStage(result) == StageVerdict::failed) return result;
  }
  return stages.runStage(Stage::service, &request->session, request);
}

// Gives the browser what the stages have come to where nothing was started: the answer
// that the response is by then.
static Answer giveAnswer(ServerState* server, HostRequest* request, Answer answer) {
  switch (answer) {
    case Answer::none:
      return serveStatic(server, request) ? Answer::whole : Answer::broken;
    case Answer::failure:
      serveFailure(request);
      return Answer::whole;
    case Answer::bare:
      (void)startResponse(request);  // a client that has gone shows when it is written to
      return Answer::whole;
    case Answer::whole:
    case Answer::broken:
    case Answer::unknown:
      break;
  }
  return answer;
}

// Without memory for the records there is nobody to ask and nothing to answer
// with: the connection just ends.
static Answer readAndAnswer(ServerState* server, HttpExchange* exchange,
                            HostRequest* request) {
  if (!openRequest(request, exchange)) return Answer::broken;
  int refusal = exchange->readHead(request);
  if (refusal) {
    exchange->closeAfterwards();
    sendErrorPage(request, refusal, nullptr);
    return Answer::whole;
  }
  const int result = runStages(*server->stages, request);
  if (endsConnection(result)) exchange->closeAfterwards();
  return giveAnswer(server, request, judgeRequest(*request, result));
}

int runRequest(ServerState* server, mg_connection* connection) try {
  HttpExchange exchange(server, connection);
  HostRequest request;
  RunningRequest running(&request);
  exchange.finish(readAndAnswer(server, &exchange, &request));
  return request.status_num > 0 ? request.status_num : kServerError;
} catch (const std::bad_alloc&) {
  mg_disable_connection_keep_alive(connection);
  return kServerError;
}

}  // namespace host
