// One HTTP request of a client, as the host layer sees it.
//
// Ownership: made and destroyed by the function that serves the request; the
// client and its head outlive it. The texts of the head are gone once the body is
// read.
// Threads: the worker that runs the request. No lock.
// Errors: as in Exchange.
#pragma once

#include <atomic>
#include <string>

#include "embedded/config.h"
#include "embedded/error_log.h"
#include "embedded/limit_log.h"
#include "http/client.h"
#include "http/request_body.h"
#include "http/request_head.h"
#include "http/response.h"
#include "layer/exchange.h"
#include "layer/judge.h"
#include "layer/request.h"
#include "layer/stages.h"

namespace host {

// What all requests of the server share. Written before the first request, but
// for the last field.
struct ServerState {
  const Config* config;
  const Stages* stages;
  ErrorLog* log;
  LimitLog* limitLog;
  LogFile* accessLog;  // may be closed
  std::string version;
  std::atomic<bool> stopping;  // keep no connection open
};

// What becomes of a connection behind a response.
enum class Fate {
  keep,   // the next request may come
  close,  // the client has sent all that it had to
  part,   // it may still be sending: closing at once could cost it the response
};

class HttpExchange final : public Exchange, private ByteSink {
 public:
  HttpExchange(ServerState* server, Client* client, const RequestHead& head);

  // Notes the request's line for logs: false when memory is short.
  [[nodiscard]] bool noteLine(HostRequest* request) const;

  // Fills the request's records from the head: 0, or the status of the answer
  // that the request gets.
  [[nodiscard]] int openRecords(HostRequest* request);

  // Sends a part of a file as a part of the body, whose length the head has told.
  [[nodiscard]] bool writeFile(int file, std::int64_t offset, std::int64_t count);

  // What has been written of the response's body.
  [[nodiscard]] std::int64_t bodyBytes() const {
    return writer_.bodyBytes();
  }

  // Ends the response as it is judged.
  [[nodiscard]] Fate finish(Answer answer);

  // Makes the connection end with this response.
  void closeAfterwards() {
    keepAlive_ = false;
  }

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
  bool send(std::span<iovec> parts, bool more) override;
  bool sendFile(int file, std::int64_t offset, std::int64_t count) override;
  [[nodiscard]] bool sent(bool whole);
  void tellLimit(const char* name);

  ServerState* server_;
  Client* client_;
  const RequestHead& head_;
  ResponseWriter writer_;
  conf_global_vars_s settings_;
  RequestBody body_;
  SendPatience patience_;
  bool keepAlive_;
};

}  // namespace host
