#include "httpd/response.h"

#include <apr_strings.h>
#include <http_core.h>
#include <http_log.h>
#include <http_protocol.h>
#include <strings.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string_view>

#include "httpd/mod_nsapi.h"
#include "layer/status.h"
#include "layer/text.h"

APLOG_USE_MODULE(nsapi);

namespace host {

// What httpd gives itself or decides about its connection.
constexpr const char* kOwnHeaders[] = {
    "date", "server", "keep-alive", "trailer", "transfer-encoding", "upgrade", "status"};

static bool belongsToHttpd(const char* name) {
  return std::any_of(std::begin(kOwnHeaders), std::end(kOwnHeaders),
                     [name](const char* own) { return equalsNoCase(name, own); });
}

// What a server says of its own body, and not of the page that stands in its place.
static bool describesBody(const char* name) {
  return strncasecmp(name, "content-", 8) == 0 || equalsNoCase(name, "etag") ||
         equalsNoCase(name, "last-modified") || equalsNoCase(name, "accept-ranges");
}

// Characters at the begin of the text that continue a header on the next line; 0 for a
// line end that does not.
static std::size_t foldSize(const char* text) {
  if (*text != '\r' && *text != '\n') return 0;
  const std::size_t size = std::strspn(text, "\r\n \t");
  return kBlanks.find(text[size - 1]) != std::string_view::npos ? size : 0;
}

// A copy of the value, on one line: clients refuse a header that goes over several.
static const char* joinFolds(apr_pool_t* pool, const char* value) {
  char* line = apr_pstrdup(pool, value);
  if (!std::strpbrk(line, "\r\n")) return line;
  char* end = line;
  for (const char* from = line; *from; ++end) {
    const std::size_t fold = foldSize(from);
    *end = fold > 0 ? ' ' : *from;
    from += std::max<std::size_t>(fold, 1);
  }
  *end = 0;
  return line;
}

// The value as it can leave, in the request's pool; null for a header that can't.
static const char* sendableValue(request_rec* r, const pb_param* param) {
  const char* value = joinFolds(r->pool, param->value);
  const bool nameFits = *param->name && !*ap_scan_http_token(param->name);
  if (nameFits && !*ap_scan_http_field_content(value)) return value;
  ap_log_rerror(APLOG_MARK, APLOG_ERR, 0, r, "response header dropped: %s", param->name);
  return nullptr;
}

void closeBehind(request_rec* r) {
  if (!r->main) r->connection->keepalive = AP_CONN_CLOSE;
}

// One header of a response with a body; the first length that can be one counts.
static void putHeader(request_rec* r, const pb_param* param, std::int64_t* length) {
  const char* value = sendableValue(r, param);
  if (!value) return;
  if (equalsNoCase(param->name, "content-type")) {
    ap_set_content_type(r, value);
  } else if (equalsNoCase(param->name, "content-length")) {
    if (*length < 0) *length = numberOf(value);
  } else if (equalsNoCase(param->name, "connection")) {
    if (equalsNoCase(value, "close")) closeBehind(r);
  } else if (!belongsToHttpd(param->name)) {
    apr_table_addn(r->headers_out, apr_pstrdup(r->pool, param->name), value);
  }
}

// httpd's own line serves where it says the same.
static void putStatus(request_rec* r, int status, const char* reason) {
  if (!reason) reason = usualReason(status);
  const char* usual = ap_get_status_line(status);
  const bool same = std::atoi(usual) == status && std::strcmp(usual + 4, reason) == 0;
  r->status = status;
  r->status_line = same ? usual : apr_psprintf(r->pool, "%d %s", status, reason);
}

std::int64_t putHead(request_rec* r, const HostRequest* request) {
  putStatus(r, request->status_num, request->reason);
  // What httpd found out about a file of that name says nothing about this page.
  ap_set_content_type(r, nullptr);
  r->content_encoding = nullptr;
  r->content_languages = nullptr;
  std::int64_t length = -1;
  for (const pb_entry* entry = request->srvhdrs->ht[0]; entry; entry = entry->next) {
    putHeader(r, entry->param, &length);
  }
  if (length >= 0) ap_set_content_length(r, length);
  return length;
}

// httpd writes Allow by itself, from the methods that it knows to be allowed.
static void allowMethods(request_rec* r, const char* list) {
  char* rest = nullptr;
  for (char* method = apr_strtok(apr_pstrdup(r->pool, list), ", ", &rest); method;
       method = apr_strtok(nullptr, ", ", &rest)) {
    ap_method_list_add(r->allowed_methods, method);
  }
}

// httpd sends an error page with the headers of the error table alone.
void putErrorHead(request_rec* r, const HostRequest* request) {
  putStatus(r, request->status_num, request->reason);
  for (const pb_entry* entry = request->srvhdrs->ht[0]; entry; entry = entry->next) {
    const pb_param* param = entry->param;
    if (describesBody(param->name) || belongsToHttpd(param->name) ||
        equalsNoCase(param->name, "connection")) {
      continue;
    }
    const char* value = sendableValue(r, param);
    if (!value) continue;
    if (equalsNoCase(param->name, "allow")) allowMethods(r, value);
    apr_table_addn(r->err_headers_out, apr_pstrdup(r->pool, param->name), value);
  }
}

}  // namespace host
