// One HTTP request on a CivetWeb connection, as the host layer sees it.
//
// Ownership: made and destroyed by the function that serves the request.
// Threads: the worker thread that CivetWeb runs the request on. No lock.
// Errors: as in Exchange.
#pragma once

#include <atomic>
#include <string>

#include "civetweb.h"
#include "embedded/config.h"
#include "embedded/error_log.h"
#include "embedded/request_body.h"
#include "embedded/response.h"
#include "layer/exchange.h"
#include "layer/judge.h"
#include "layer/request.h"
#include "layer/stages.h"

namespace host {

// What all requests of the server share. Written before the first request.
struct ServerState {
  const Config* config;
  const Stages* stages;
  ErrorLog* log;
  std::string version;
  std::atomic<int> running;    // requests in progress
  std::atomic<bool> stopping;  // keep no connection open
};

class HttpExchange final : public Exchange, private ByteSink {
 public:
  HttpExchange(ServerState* server, mg_connection* connection);

  // Fills the request's records from the request line and the headers. 0, or
  // the status of the answer that a malformed request gets.
  [[nodiscard]] int readHead(HostRequest* request);

  // Ends the response as it is judged, and decides what becomes of the connection.
  void finish(Answer answer);

  // Makes the connection end with this response.
  void closeAfterwards();

  int readBody(unsigned char* buffer, int size) override;
  int startResponse(HostRequest* request) override;
  int writeBody(const char* bytes, int size) override;
  [[nodiscard]] std::int64_t missing() const override;
  bool peer(sockaddr_in* address) override;
  char* clientName() override;
  char* translateUri(const char* uri, Session* session) override;
  conf_global_vars_s* settings() override;
  void log(int degree, const char* function, HostRequest* request,
           const char* message) override;

 private:
  bool send(const char* bytes, std::size_t size) override;
  [[nodiscard]] bool wantsKeepAlive() const;

  ServerState* server_;
  mg_connection* connection_;
  const mg_request_info* info_;
  ResponseWriter writer_;
  conf_global_vars_s settings_;
  RequestBody body_;
  bool keepAlive_ = false;
};

}  // namespace host
