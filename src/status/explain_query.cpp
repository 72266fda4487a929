#include "status/explain_query.h"

#include <strings.h>

#include <cstring>
#include <utility>

#include "status/query_text.h"

static void readOr(std::string_view query, const char* name, const char* absent,
                   char* value, std::size_t size) {
  if (!readQuery(query, name, value, size) || *value == '\0')
    (void)std::strncpy(value, absent, size - 1);
}

// What stands behind "http://" or "https://"; null for a text that begins otherwise.
static const char* behindScheme(const char* url) {
  for (const char* scheme : {"http://", "https://"})
    if (strncasecmp(url, scheme, std::strlen(scheme)) == 0)
      return url + std::strlen(scheme);
  return nullptr;
}

// A host that is given by itself counts before that of the URL.
static const char* takeHost(const char* url, ExplainQuery* asked) {
  const char* host = behindScheme(url);
  if (!host) return url;
  const std::size_t length = std::strcspn(host, "/?#");
  if (asked->host[0] == '\0' && length < sizeof asked->host)
    std::memcpy(asked->host, host, length);
  return host[length] == '/' ? host + length : "/";
}

// In a path, unlike in a query, '+' and '&' are bytes like any other: they are spelled
// before the spelling is taken back.
static const char* spelling(char byte) {
  if (byte == '+') return "%2B";
  return byte == '&' ? "%26" : nullptr;
}

static bool decodePath(std::string_view text, char* path) {
  constexpr std::size_t kSpelled = 3;
  char query[kUrlSize] = "p=";
  std::size_t length = 2;
  for (const char byte : text) {
    if (length + kSpelled > sizeof query) return false;
    const char* spelled = spelling(byte);
    if (spelled)
      std::memcpy(query + std::exchange(length, length + kSpelled), spelled, kSpelled);
    else
      query[length++] = byte;
  }
  return readQuery({query, length}, "p", path, kUrlSize);
}

const char* readExplainQuery(std::string_view query, ExplainQuery* asked) {
  std::memset(asked, 0, sizeof *asked);
  readOr(query, "host", "", asked->host, sizeof asked->host);
  readOr(query, "cookie", "", asked->cookie, sizeof asked->cookie);
  readOr(query, "method", "GET", asked->method, sizeof asked->method);
  if (!readQuery(query, "url", asked->url, sizeof asked->url)) {
    asked->url[0] = '/';
    asked->url[1] = '\0';
    return "Ask for a URL, or for a path with / first.";
  }
  const char* path = takeHost(asked->url, asked);
  if (*path != '/') return "The URL has neither http:// nor a path with / first.";
  if (!decodePath({path, std::strcspn(path, "?#")}, asked->path))
    return "The path is too long, or has a '%' without two digits behind it.";
  return nullptr;
}

// The record comes first, so that its operations find the rest.
struct AskedRequest {
  vesk_request req;
  const ExplainQuery* asked;
};

static const char* askedHeader(vesk_request* req, const char* name) {
  const ExplainQuery* asked = reinterpret_cast<AskedRequest*>(req)->asked;
  const char* value = "";
  if (strcasecmp(name, "host") == 0) value = asked->host;
  if (strcasecmp(name, "cookie") == 0) value = asked->cookie;
  return *value != '\0' ? value : nullptr;
}

static void keepHeader(vesk_request* /*req*/, const char* /*value*/) {}

Explanation* explainQuery(mappingsTable* table, const vesk_request* model,
                          const ExplainQuery& asked) {
  AskedRequest request{.req = *model, .asked = &asked};
  request.req.uri = asked.path;
  request.req.path = nullptr;
  request.req.method = asked.method;
  request.req.getHeader = askedHeader;
  request.req.freeHeader = keepHeader;
  return explainRequest(table, &request.req);
}
