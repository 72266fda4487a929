#include "nsapi/status_pages.h"

#include <cstdlib>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/text.h"
#include "nsapi/host_objects.h"
#include "nsapi/option_texts.h"
#include "nsapi/response_path.h"
#include "nsapi/version.h"
#include "status/explain_page.h"
#include "status/explain_query.h"
#include "status/query_text.h"
#include "status/status_format.h"
#include "status/status_snapshot.h"

constexpr std::int32_t kOk = 200;
constexpr std::int32_t kNotFound = 404;

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

int sendStatus(const StatusRequest& status) {
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

int sendExplanationPage(const StatusRequest& status) {
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
