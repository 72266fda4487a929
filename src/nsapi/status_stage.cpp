#include "nsapi/status_stage.h"

#include <cstdlib>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/text.h"
#include "nsapi/host_objects.h"
#include "nsapi/nsapi_request.h"
#include "nsapi/option_texts.h"
#include "nsapi/response_path.h"
#include "nsapi/version.h"
#include "status/explain_page.h"
#include "status/explain_query.h"
#include "status/query_text.h"
#include "status/status_action.h"
#include "status/status_format.h"
#include "status/status_snapshot.h"

constexpr std::int32_t kOk = 200;
constexpr std::int32_t kSeeOther = 303;
constexpr std::int32_t kNotFound = 404;
constexpr std::int32_t kWrongMethod = 405;
constexpr std::int32_t kLengthRequired = 411;
constexpr std::int32_t kTooLarge = 413;

// A request for the page, taken apart.
struct StatusRequest {
  vesk_request* req;
  mappingsTable* table;
  const pblock* line;
  std::string_view path;   // of the page
  std::string_view below;  // what of the URI stands behind it: empty, or from a '/' on
  std::string_view query;
};

static std::string_view viewOf(const char* text) {
  return text ? std::string_view(text) : std::string_view();
}

static const char* lineValue(const StatusRequest& status, const char* name) {
  return pblock_findval(name, const_cast<pblock*>(status.line));
}

static bool lineSays(const StatusRequest& status, const char* name, const char* word) {
  return viewOf(lineValue(status, name)) == word;
}

// Without a path on the line the page's own is what stands before "/explain", if that
// stands at the end of the URI.
static bool locate(StatusRequest* status) {
  constexpr std::string_view kExplain = "/explain";
  const std::string_view uri = viewOf(status->req->uri);
  const char* given = lineValue(*status, "path");
  if (given) {
    status->path = given;
    if (!uri.starts_with(status->path)) return false;
  } else {
    status->path =
        uri.ends_with(kExplain) ? beginOf(uri, uri.size() - kExplain.size()) : uri;
  }
  status->below = restOf(uri, status->path.size());
  while (status->path.ends_with('/')) status->path.remove_suffix(1);
  return status->below.empty() || status->below.front() == '/' || uri.ends_with('/');
}

static bool isLocal(const vesk_request* req) {
  const std::string_view address = viewOf(pblock_findval("ip", sessionOf(req)->client));
  return address.starts_with("127.") || address == "::1" ||
         address.starts_with("::ffff:127.");
}

static void describeAnswer(vesk_request* req, const char* type) {
  req->setStatus(req, kOk, "OK");
  req->addHeader(req, "content-type", type);
  req->addHeader(req, "cache-control", "no-store");
  req->addHeader(req, "x-content-type-options", "nosniff");
  req->addHeader(req, "content-security-policy",
                 "default-src 'none'; style-src 'unsafe-inline'; form-action 'self'; "
                 "frame-ancestors 'none'; base-uri 'none'");
  req->addHeader(req, "referrer-policy", "no-referrer");
}

static int sendPage(const StatusRequest& status, TextBuffer* page, const char* type) {
  vesk_request* req = status.req;
  if (page->failed || page->length > INT32_MAX) {
    freeText(page);
    return refuse(req, kInternalError, "Out of memory.");
  }
  describeAnswer(req, type);
  (void)pblock_nninsert("content-length", static_cast<int>(page->length),
                        requestOf(req)->srvhdrs);
  // A browser that has gone is no failure of the page's.
  (void)req->writeClient(req, page->bytes, static_cast<std::int32_t>(page->length));
  freeText(page);
  return REQ_PROCEED;
}

struct FormRow {
  const char* name;
  const char* type;
  void (*write)(TextBuffer* page, const statusSnapshot& snapshot);
};

constexpr FormRow kForms[] = {
    {"html", "text/html; charset=utf-8", writeHtml},
    {"json", "application/json", writeJson},
    {"prometheus", "text/plain; version=0.0.4; charset=utf-8", writePrometheus},
    {"csv", "text/csv; charset=utf-8", writeCsv},
};

static const FormRow* findForm(const StatusRequest& status) {
  char name[16] = "html";
  if (!readQuery(status.query, "format", name, sizeof name)) return &kForms[0];
  for (const FormRow& form : kForms)
    if (std::strcmp(form.name, name) == 0) return &form;
  return nullptr;
}

static std::int32_t readRefresh(const StatusRequest& status) {
  constexpr std::int32_t kDefault = 5;
  constexpr std::int64_t kLongest = 3600;
  constexpr int kDecimal = 10;
  char text[16] = "";
  if (!readQuery(status.query, "refresh", text, sizeof text)) return kDefault;
  const std::int64_t seconds = std::strtol(text, nullptr, kDecimal);
  return seconds >= 0 && seconds <= kLongest ? static_cast<std::int32_t>(seconds)
                                             : kDefault;
}

static int sendStatus(const StatusRequest& status) {
  vesk_request* req = status.req;
  const FormRow* form = findForm(status);
  if (!form)
    return refuse(req, kNotFound, "No such format: html, json, prometheus, csv.");
  const RequestBlock path{req, copyText(req, status.path)};
  statusSnapshot snapshot;
  if (!path.bytes || !takeSnapshot(req, status.table, &snapshot))
    return refuse(req, kInternalError, "Out of memory.");
  OptionTexts options;
  describeOptions(status.table, &options);
  char token[kBoardTokenSize];
  snapshot.version = kVersionText;
  snapshot.options = options.rows;
  snapshot.optionCount = options.count;
  snapshot.path = path.bytes;
  snapshot.refresh = readRefresh(status);
  if (lineSays(status, "actions", "on") && getBoard() && getBoardToken(getBoard(), token))
    snapshot.token = token;
  TextBuffer page = newText(req);
  form->write(&page, snapshot);
  freeSnapshot(req, &snapshot);
  return sendPage(status, &page, form->type);
}

static bool wantsJson(const StatusRequest& status) {
  char name[8] = "";
  return readQuery(status.query, "format", name, sizeof name) &&
         std::strcmp(name, "json") == 0;
}

// `words` tell why there is no explanation.
static int sendNoExplanation(const StatusRequest& status, const ExplainedUrl& asked,
                             const char* words) {
  if (wantsJson(status)) return refuse(status.req, kBadRequest, words);
  TextBuffer page = newText(status.req);
  writeExplainForm(&page, asked, words);
  return sendPage(status, &page, "text/html; charset=utf-8");
}

static int sendExplanation(const StatusRequest& status, const ExplainedUrl& asked,
                           const ExplainQuery& query) {
  vesk_request* req = status.req;
  const RequestBlock block{req, explainQuery(status.table, req, query)};
  if (!block.bytes) return refuse(req, kInternalError, "Out of memory.");
  const auto* explained = reinterpret_cast<const Explanation*>(block.bytes);
  const bool json = wantsJson(status);
  TextBuffer page = newText(req);
  (json ? writeExplanationJson : writeExplanationHtml)(&page, asked, *explained);
  return sendPage(status, &page, json ? "application/json" : "text/html; charset=utf-8");
}

static int explain(const StatusRequest& status) {
  ExplainQuery query;
  const char* words = readExplainQuery(status.query, &query);
  const RequestBlock path{status.req, copyText(status.req, status.path)};
  const ExplainedUrl asked{query.url, query.host, query.cookie, query.method,
                           orElse(path.bytes, "")};
  if (!words && (!status.table || !isFilled(status.table)))
    words = "No server has told its mappings yet.";
  return words ? sendNoExplanation(status, asked, words)
               : sendExplanation(status, asked, query);
}

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

static int answer(const StatusRequest& status) {
  const bool actions = lineSays(status, "actions", "on");
  const std::string_view method = viewOf(status.req->method);
  const bool explains = status.below == "/explain";
  if (status.below.size() > 1 && !explains)
    return refuse(status.req, kNotFound, "No such page.");
  if (method == "GET" || method == "HEAD")
    return explains ? explain(status) : sendStatus(status);
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
  if (!locate(&status)) return REQ_NOACTION;
  // What the host has made of the URI, a file's type or one of the connector's own.
  dropParameter("content-type", rq->srvhdrs);
  if (lineSays(status, "from", "local") && !isLocal(&req))
    return refuse(&req, kForbidden, "The status page is for clients of this machine.");
  return answer(status);
}
