#include "embedded/run_request.h"

#include <new>
#include <utility>

#include "embedded/access_log.h"
#include "embedded/pages.h"
#include "embedded/static_file.h"
#include "layer/judge.h"
#include "layer/outcome.h"
#include "layer/parameters.h"
#include "layer/request_setup.h"
#include "layer/status.h"

namespace host {

// The status of a head that isn't read at all.
static int statusOf(HeadState state) {
  switch (state) {
    case HeadState::tooLong:
      return kHeadTooLarge;
    case HeadState::uriTooLong:
      return kUriTooLong;
    case HeadState::malformed:
    case HeadState::incomplete:
    case HeadState::complete:
      break;
  }
  return kBadRequest;
}

// The limit that a head has met, or null.
static const char* limitOf(HeadState state, int status) {
  if (status == kUriTooLong) return "LimitRequestUri";
  if (status != kHeadTooLarge) return nullptr;
  return state == HeadState::complete ? "LimitRequestFields" : "LimitRequestHead";
}

void takeHead(ServerState* server, Client* client, ReadHead* read) {
  const HeadScan scan = std::exchange(client->scan, {});
  if (scan.state == HeadState::complete) {
    const std::string_view bytes = client->input.waiting().substr(0, scan.size);
    read->status = readHead(bytes, server->config->limits, &read->head);
    client->input.take(scan.size);
  } else {
    read->head = {};
    read->status = statusOf(scan.state);
  }
  const char* limit = limitOf(scan.state, read->status);
  if (limit) server->limitLog->tell(limit, client->address);
}

// A request that is typed for a plug-in, and that no line of the configuration has
// brought to it, asks for the source of a page.
static bool serveStatic(ServerState* server, HttpExchange* exchange,
                        HostRequest* request) {
  if (!isInternalType(findValue(request->srvhdrs, "content-type"))) {
    return sendStaticFile(exchange, request, *server->config);
  }
  exchange->log(LOG_MISCONFIG, "vesk-host", request,
                "no Service function took a request with an internal type");
  sendErrorPage(request, kNotFound, nullptr);
  return true;
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
static Answer giveAnswer(ServerState* server, HttpExchange* exchange,
                         HostRequest* request, Answer answer) {
  switch (answer) {
    case Answer::none:
      return serveStatic(server, exchange, request) ? Answer::whole : Answer::broken;
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

// An answer of the server's own to a request that no stage is to see.
static void refuse(HttpExchange* exchange, HostRequest* request, int status) {
  const bool harmless = status == kNotImplemented || status == kMethodNotAllowed;
  if (!harmless) exchange->closeAfterwards();
  const bool allow = harmless && status == kMethodNotAllowed;
  if (allow) (void)addParameter(request->srvhdrs, "allow", kAllowedMethods);
  sendErrorPage(request, status, nullptr);
}

// `OPTIONS *` asks for nothing but a sign of life.
static Answer answerForServer(HostRequest* request) {
  (void)addParameter(request->srvhdrs, "allow", kAllowedMethods);
  (void)addParameter(request->srvhdrs, "content-length", "0");
  (void)startResponse(request);
  return Answer::whole;
}

// Without memory for the records there is nobody to ask and nothing to answer
// with: the connection just ends.
static Answer readAndAnswer(ServerState* server, HttpExchange* exchange,
                            HostRequest* request, const ReadHead& read) {
  if (!openRequest(request, exchange) || !exchange->noteLine(request)) {
    return Answer::broken;
  }
  int status = read.status;
  if (status == 0 && read.head.path == "*") return answerForServer(request);
  if (status == 0) status = exchange->openRecords(request);
  if (status) {
    refuse(exchange, request, status);
    return Answer::whole;
  }
  const int result = runStages(*server->stages, request);
  if (endsConnection(result)) exchange->closeAfterwards();
  return giveAnswer(server, exchange, request, judgeRequest(*request, result));
}

Fate runRequest(ServerState* server, Client* client, const ReadHead& read) try {
  HttpExchange exchange(server, client, read.head);
  HostRequest request;
  RunningRequest running(&request);
  const time_t begin = server->accessLog->isOpen() ? time(nullptr) : 0;
  const Answer answer = readAndAnswer(server, &exchange, &request, read);
  const Fate fate = exchange.finish(answer);
  if (server->accessLog->isOpen()) {
    server->accessLog->write(
        accessLine({&request, client->address, begin, exchange.bodyBytes()}));
  }
  return read.status && fate != Fate::keep ? Fate::part : fate;
} catch (const std::bad_alloc&) {
  return Fate::close;
}

}  // namespace host
