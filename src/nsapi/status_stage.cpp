#include "nsapi/status_stage.h"

#include <cstdlib>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/text.h"
#include "nsapi/host_objects.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/response_path.h"
#include "nsapi/status_pages.h"
#include "nsapi/status_request.h"
#include "status/status_action.h"

constexpr std::int32_t kSeeOther = 303;
constexpr std::int32_t kWrongMethod = 405;
constexpr std::int32_t kLengthRequired = 411;
constexpr std::int32_t kTooLarge = 413;

// A form is a few hundred bytes long; who announces more is sent away before it is read.
static std::int64_t formLength(const vesk_request* req) {
  constexpr int kDecimal = 10;
  const char* text = pblock_findval("content-length", requestOf(req)->headers);
  return text ? std::strtol(text, nullptr, kDecimal) : -1;
}

// Reads exactly `length` bytes: the host can't tell the end from a failure.
static bool readForm(vesk_request* req, char* form, std::int32_t length) {
  req->hasPostData = 1;
  for (std::int32_t got = 0; got < length;) {
    const std::int32_t count = req->getPostData(req, form + got, length - got);
    if (count <= 0) return false;
    got += count;
  }
  return true;
}

static int act(const StatusRequest& status) {
  vesk_request* req = status.req;
  constexpr std::int32_t kMostBytes = 1024;
  char form[kMostBytes];
  const std::int64_t announced = formLength(req);
  if (announced < 0) return refuse(req, kLengthRequired, "The form has no length.");
  if (announced > kMostBytes) return refuse(req, kTooLarge, "The form is too long.");
  const auto length = static_cast<std::int32_t>(announced);
  if (!readForm(req, form, length))
    return refuse(req, kBadRequest, "The form is not whole.");
  const char* client = orElse(pblock_findval("ip", sessionOf(req)->client), "-");
  switch (applyAction(req, {form, static_cast<std::size_t>(length)}, client)) {
    case ActionResult::forbidden:
      return refuse(req, kForbidden, "The token is not that of the page.");
    case ActionResult::unknown:
      return refuse(req, kBadRequest, "No such action or server.");
    case ActionResult::done:
      break;
  }
  const RequestBlock path{req, copyText(req, status.path.empty() ? "/" : status.path)};
  if (!path.bytes) return refuse(req, kInternalError, "Out of memory.");
  req->setStatus(req, kSeeOther, "See Other");
  req->addHeader(req, "location", path.bytes);
  req->addHeader(req, "content-length", "0");
  (void)req->writeClient(req, nullptr, 0);
  return REQ_PROCEED;
}

static int refuseMethod(const StatusRequest& status, bool actions) {
  status.req->addHeader(status.req, "allow", actions ? "GET, HEAD, POST" : "GET, HEAD");
  return refuse(status.req, kWrongMethod, "The status page takes GET and HEAD.");
}

// A word that means nothing restricts to nobody: a slip must not open the page.
static bool mayAsk(const StatusRequest& status) {
  if (!lineValue(status, "from")) return true;
  return lineSays(status, "from", "local") && isLocalClient(status.req);
}

static int answer(const StatusRequest& status) {
  const bool actions = lineSays(status, "actions", "on");
  const std::string_view method = viewOf(status.req->method);
  if (method == "GET" || method == "HEAD")
    return status.explains ? sendExplanationPage(status) : sendStatus(status);
  return method == "POST" && actions ? act(status) : refuseMethod(status, actions);
}

int runStatusStage(mappingsTable* table, pblock* pb, Session* sn, Request* rq) {
  vesk_request req;
  init_nsapi_request(&req, pb, sn, rq);
  StatusRequest status{};
  status.req = &req;
  status.table = table;
  status.line = pb;
  status.query = viewOf(pblock_findval("query", rq->reqpb));
  if (!lineSays(status, "report", "status")) {
    req.log(&req, "veskservice: there is no report \"%.100s\"",
            lineValue(status, "report"));
    return REQ_NOACTION;
  }
  if (!locatePage(&status)) return REQ_NOACTION;
  // What the host has made of the URI, a file's type or one of the connector's own.
  dropParameter("content-type", rq->srvhdrs);
  if (!mayAsk(status))
    return refuse(&req, kForbidden, "The status page is for clients of this machine.");
  return answer(status);
}
