#include "proxy/proxy_error.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "context/guards.h"
#include "context/request_block.h"
#include "context/sockets.h"
#include "context/vesk_error.h"

constexpr std::int32_t kPageSize = 1024;  // longest page and its NUL; more is cut
constexpr std::int32_t kServiceUnavailable = 503;
constexpr std::int32_t kGatewayTimeout = 504;

constexpr char kPageText[] =
    "<H2>Server Error</H2>The server encountered an internal error and was unable to "
    "complete your request.";

struct ErrorMessages {
  std::int32_t error;
  const char* statusMessage;  // in trace lines only
  const char* errorMessage;   // what the page shows
};

// The page names no server and no error number: a browser's user can do nothing with
// either, and an attacker can.
constexpr ErrorMessages kErrorMessages[] = {
    {ECONNRESET, "Vesk unexpectedly closed connection", "Vesk closed connection"},
    {EPIPE, "Vesk unexpectedly closed connection", "Vesk closed connection"},
    {ESHUTDOWN, "Vesk unexpectedly closed connection", "Vesk closed connection"},
    {ETIMEDOUT, "Could not connect to Vesk", "Could not connect to Vesk Server"},
    {ECONNREFUSED, "Could not connect to Vesk", "Could not connect to Vesk Server"},
    {EVESK_BUSY,
     "Application server is busy.  Either there are too many concurrent requests or "
     "server still starting up",
     "Application server is busy.  Either there are too many concurrent requests or the "
     "server still is starting up"},
    {EVESK_CLIENT_DOWN, "Couldn't write back to client",
     "WriteClient failed. Browser of other client probably shut down"},
};

constexpr ErrorMessages kOtherError = {0, "Vesk Connector protocol error",
                                       "Vesk Connector Protocol Error"};

// What has no row is the protocol's fault as far as a browser is concerned.
static const ErrorMessages& messagesFor(std::int32_t error) {
  for (const ErrorMessages& row : kErrorMessages)
    if (row.error == error) return row;
  return kOtherError;
}

static void sendPage(vesk_request* req, char* page, const char* message) {
  const int length =
      std::snprintf(page, kPageSize, "%s<P><B>%s.</B>", kPageText, message);
  if (isPastDeadline(req)) {
    req->setStatus(req, kGatewayTimeout, "Gateway Timeout");
  } else {
    req->setStatus(req, kServiceUnavailable, "Server Error");
  }
  req->addHeader(req, "content-type", "text/html");
  // Known before the head leaves, so that the host can say there what it makes of it.
  req->outcome.kind = kOutcomeFailed;
  // The page is the last word of this request: responseStarted is set even where it could
  // not be written, so that the host doesn't add a page of its own behind half of one.
  (void)req->writeClient(req, page, length);  // there is nobody else to tell
  req->responseStarted = 1;
}

// Whether there is a response that must end as it stands: what was written behind its
// first bytes would look like a part of it.
static bool endsBroken(vesk_request* req, const veskProxy* proxy) {
  if (!req->responseStarted || !guarded(req, Guard::partial)) return false;
  req->outcome.kind = kOutcomeBroken;
  req->log(req, "%s failed behind the begin of its response, which ends broken: %s",
           proxy ? proxy->name : "<null>", describeFailure(req->lastError));
  return true;
}

void proxyerror(vesk_request* req, veskProxy* proxy) {
  const std::int32_t error = req->lastError;
  const ErrorMessages& messages = messagesFor(error);
  // A browser that has gone can't be shown a page, and it is no event for the log.
  if (error == EVESK_CLIENT_DOWN) {
    req->trace(req, "proxyerror: EVESK_CLIENT_DOWN: statusMsg: %s, errorMsg: %s",
               messages.statusMessage, messages.errorMessage);
    return;
  }
  if (endsBroken(req, proxy)) return;
  // What the failed server said of its response is not about the page, nor about the
  // answer of the next server.
  if (!req->responseStarted && guarded(req, Guard::attempt)) req->restoreResponse(req);
  // Another server may still answer: a page now would stand in front of that answer.
  if (req->deferError) {
    req->log(req, "%s deferred error: %s : %d: %s", proxy ? proxy->name : "<null>",
             messages.errorMessage, error, describeError(error));
    return;
  }

  RequestBlock page{req, req->malloc(req, kPageSize)};
  req->log(req, "returning error page for %s", describeError(error));
  req->trace(req, "proxyerror: statusMsg: %s, errorMsg: %s", messages.statusMessage,
             messages.errorMessage);
  if (!page.bytes) {
    req->log(req, "   proxyerror: <error: out of memory>");
    return;
  }
  sendPage(req, page.bytes, messages.errorMessage);
}
