#include "nsapi/request_variables.h"

#include <nsapi.h>

#include <cstdio>
#include <cstring>

#include "context/memory.h"
#include "context/request_block.h"
#include "context/spelling.h"
#include "context/text.h"
#include "nsapi/host_memory.h"
#include "nsapi/host_objects.h"

// The host's functions take texts that they don't change without `const`.
static char* hostText(const char* text) {
  return const_cast<char*>(text);
}

struct EquivalentName {
  const char* variable;
  const char* hostName;
};

// What the host calls the same thing. A server knows requests as CGI programs do; the
// host has each fact once, under a name of its own, in one of four blocks.
static const EquivalentName nesequivHeaders[] = {
    {"CONTENT_LENGTH", "content-length"},
    {"CONTENT_TYPE", "content-type"},
    {"ACCEPT", "accept"},
    {"ACCEPT_ENCODING", "accept-encoding"},
    {"ACCEPT_LANGUAGE", "accept-language"},
    {"AUTHORIZATION", "authorization"},
    {"COOKIE", "cookie"},
    {"IF_MODIFIED_SINCE", "if-modified-since"},
    {"REFERER", "referer"},
    {"USER_AGENT", "user-agent"},
    {"USER_DEFINED", "user-defined"},
    {"QUERY_STRING", "query"},
    {"REQUEST_LINE", "clf-request"},
    {"REQUEST_METHOD", "method"},
    {"SCRIPT_NAME", "uri"},
    {"SERVER_PROTOCOL", "protocol"},
    {"AUTH_TYPE", "auth-type"},
    {"PATH_INFO", "path-info"},
    {"REMOTE_USER", "auth-user"},
    {"HTTPS_KEYSIZE", "keysize"},
    {"HTTPS_SECRETSIZE", "secret-keysize"},
    {"REMOTE_ADDR", "ip"},
};

// The special variables: facts that no block has. `name` is the caller's spelling, for
// the trace line.
//
// What is built here comes from the host's pool, whatever `apialloc` says: nobody gives
// a value back, and the pool ends with the request.

// Secure or not is the host's setting: the API doesn't tell about one connection.
static const char* serverPortSecure(vesk_request* req, const char* name) {
  auto* value = static_cast<char*>(nsapi_malloc(req, 2));
  if (!value) return nullptr;
  value[0] = conf_getglobals()->Vsecurity_active ? '1' : '0';
  value[1] = '\0';
  req->trace(req, "   %s: %.100s", name, value);
  return value;
}

// The path of what stands behind the page in the URI: without that there is none, and
// the page's own is no answer.
static const char* pathTranslated(vesk_request* req, const char* name) {
  const char* info = pblock_findval("path-info", requestOf(req)->vars);
  if (!info || !*info) return nullptr;
  const char* value = request_translate_uri(hostText(info), sessionOf(req));
  if (value) req->trace(req, "   %s: %.100s", name, value);
  return value;
}

// 0: the host doesn't verify the name, which would cost a second look-up, and each can
// block the request for seconds.
static const char* remoteHost(vesk_request* req, const char* name) {
  const char* value = session_dns_lookup(sessionOf(req), 0);
  if (value) req->trace(req, "   %s: %.100s", name, value);
  return value;
}

static const char* serverName(vesk_request* req, const char* name) {
  const char* value = conf_getglobals()->Vserver_hostname;
  if (value) req->trace(req, "   %s: %s", name, value);
  return value;
}

static const char* serverPort(vesk_request* req, const char* name) {
  constexpr int kPortTextSize = 16;
  auto* value = static_cast<char*>(nsapi_malloc(req, kPortTextSize));
  if (!value) return nullptr;
  (void)std::snprintf(value, kPortTextSize, "%d", conf_getglobals()->Vport);
  req->trace(req, "   %s: %s", name, value);
  return value;
}

static const char* tracedFact(vesk_request* req, const char* name, const char* value) {
  if (value) req->trace(req, " %s: %s", name, value);
  return value;
}

static const char* serverSoftware(vesk_request* req, const char* name) {
  return tracedFact(req, name, system_version());
}

static const char* gatewayInterface(vesk_request* req, const char* name) {
  return tracedFact(req, name, nsapi_strdup(req, "CGI/1.1"));
}

static const char* https(vesk_request* req, const char* name) {
  const bool secure = conf_getglobals()->Vsecurity_active != 0;
  return tracedFact(req, name, nsapi_strdup(req, secure ? "ON" : "OFF"));
}

struct SpecialVariable {
  const char* name;
  const char* (*value)(vesk_request* req, const char* name);
};

static constexpr SpecialVariable kSpecialVariables[] = {
    {"SERVER_PORT_SECURE", serverPortSecure},
    {"PATH_TRANSLATED", pathTranslated},
    {"REMOTE_HOST", remoteHost},
    {"SERVER_NAME", serverName},
    {"SERVER_PORT", serverPort},
    {"SERVER_SOFTWARE", serverSoftware},
    {"GATEWAY_INTERFACE", gatewayInterface},
    {"HTTPS", https},
};

// In upper case with underscores, whatever the spelling asked for: `server-port` means
// the port, and not a header that a client made up.
static const SpecialVariable* findSpecial(const char* name) {
  for (const SpecialVariable& special : kSpecialVariables) {
    if (std::strcmp(special.name, name) == 0) return &special;
  }
  return nullptr;
}

// The client's headers come last: a client must not overrule what the host knows of
// the request. An empty value counts as none, so that it can't hide one further on.
const char* getOtherHeader(vesk_request* req, const char* name) {
  const Request* rq = requestOf(req);
  const struct {
    pblock* block;
    const char* label;
  } places[] = {{rq->reqpb, "rq->reqpb"},
                {rq->vars, "rq->vars"},
                {sessionOf(req)->client, "sn->client"},
                {rq->headers, "rq->headers"}};
  for (const auto& place : places) {
    const char* value = place.block ? pblock_findval(name, place.block) : nullptr;
    if (!value || !*value) continue;
    req->trace(req, "   %.100s: %.200s [Found in: %s]", name, value, place.label);
    return value;
  }
  req->trace(req, "   %.100s: [not found]", name);
  return nullptr;
}

// The rows are few next to the parameters that each search of the blocks goes through.
static const char* findEquivalent(vesk_request* req, const char* variable) {
  for (const EquivalentName& row : nesequivHeaders) {
    if (std::strcmp(row.variable, variable) == 0)
      return getOtherHeader(req, row.hostName);
  }
  return nullptr;
}

// Searches the blocks in every spelling. `work` holds the name in upper case with
// underscores, and is used up. The spelling of CGI comes first, and with it the host's
// own name for the same thing: else a client's header in another spelling would win.
static const char* searchSpellings(vesk_request* req, const char* name, char* work) {
  const char* value = getOtherHeader(req, work);
  if (!value) value = findEquivalent(req, work);
  if (value) return value;

  fromUnderscoresToDashes(req, work);
  value = getOtherHeader(req, work);
  if (value) return value;

  toLowerCaseWithDashes(req, name, work);
  value = getOtherHeader(req, work);
  if (value) return value;

  fromDashesToUnderscores(req, work);
  return getOtherHeader(req, work);
}

static const char* resolve(vesk_request* req, const char* name, char* work) {
  toUpperCaseWithUnderscores(req, name, work);
  const SpecialVariable* special = findSpecial(work);
  if (!special) return searchSpellings(req, name, work);

  const char* value = special->value(req, name);
  if (value || special->value != remoteHost) return value;
  // A client without a name is named by its address; the names are equally long.
  static_assert(sizeof "REMOTE_HOST" == sizeof "REMOTE_ADDR");
  std::memcpy(work, "REMOTE_ADDR", sizeof "REMOTE_ADDR");
  return searchSpellings(req, name, work);
}

const char* getHeader(vesk_request* req, const char* name) {
  const Request* rq = requestOf(req);
  // As spelled by the caller, and before all else: a server that asks for a header in the
  // client's own spelling wants that header, also where the name means something here.
  const char* sent = rq && rq->headers ? pblock_findval(name, rq->headers) : nullptr;
  if (sent) {
    req->trace(req, "   %.100s: %.200s", name, sent);
    return sent;
  }
  // All spellings are as long as the name, so one buffer serves them in turn.
  const RequestBlock work{req, newBlock(req, textLength(name) + 1)};
  return work.bytes ? resolve(req, name, work.bytes) : nullptr;
}

char* getRealPath(vesk_request* req, const char* uri) {
  const Request* rq = requestOf(req);
  const char* ownUri = pblock_findval("uri", rq->reqpb);
  // The host has translated this request's own URI already; once more would run all its
  // name functions again, and each may block.
  const bool own = ownUri && std::strcmp(ownUri, uri) == 0;
  const char* label = own ? "shortcut" : "translated";
  const char* path = own ? pblock_findval("path", rq->vars)
                         : request_translate_uri(hostText(uri), sessionOf(req));
  if (!path) {
    req->trace(req, "   %s getRealPath(%.200s) = null", label, uri);
    return nullptr;
  }
  // A copy, for the caller gives it back with `free`, and one of the two is the host's.
  req->trace(req, "   %s getRealPath(%.200s) = %.200s", label, uri, path);
  return req->strdup(req, path);
}
