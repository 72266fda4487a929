// A request of httpd and its response, as the stage functions see them.
//
// The response goes out through httpd's output filters: each block at once, so
// that a page that is made in pieces arrives in pieces, but for the last block
// of a known length, which leaves with whatever is before and behind it.
//
// Ownership: lives in the request's pool (request.h), as long as its
// request_rec.
// Threads: the one that runs the request. No lock.
// Errors: as Exchange tells. Units: bytes.
#pragma once

#include <httpd.h>

#include <cstdint>

#include "layer/exchange.h"
#include "layer/judge.h"
#include "layer/request.h"

namespace host {

class HttpdExchange final : public Exchange {
 public:
  explicit HttpdExchange(request_rec* r);

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

  // Makes sure that the head tells the truth about the body before it is handed on,
  // whatever the filters do to it: OK, or the status of the answer. May block.
  [[nodiscard]] int settleBody();

  // Ends a started response as it is judged.
  void finish(Answer answer);

  // The status that httpd itself answers with, as for a body that is too long, or in
  // place of a server's error page; 0: none.
  [[nodiscard]] int refusal() const {
    return refusal_;
  }

 private:
  // How the request's body goes on once the bytes at hand are taken.
  enum class BodyState { open, ended, broken };

  int takeBytes(unsigned char* buffer, int size);
  int readPiece(unsigned char* buffer, int size, apr_read_type_e wait);
  [[nodiscard]] bool fetchBody(int size, apr_read_type_e wait);
  [[nodiscard]] bool pass();
  void putBreak();
  void sendAway();

  request_rec* r_;
  apr_bucket_brigade* body_;  // read and not yet taken; null: nothing was read
  apr_bucket_brigade* out_;   // empty between two writes
  std::int64_t left_;         // of a body of known length; below 0: unknown
  BodyState bodyState_;
  bool ended_;  // of the response: its end has gone out
  int refusal_;
  conf_global_vars_s settings_;
};

// True for a sub-request, on this thread, that only translates a URI.
[[nodiscard]] bool isTranslating();

}  // namespace host
