#include "nsapi/request_variables.h"

#include <nsapi.h>

#include <cstdio>
#include <cstring>

#include "context/guards.h"
#include "context/memory.h"
#include "context/privacy.h"
#include "context/request_block.h"
#include "context/spelling.h"
#include "context/text.h"
#include "nsapi/host_memory.h"
#include "nsapi/host_objects.h"

// The host's functions take texts that they don't change without `const`.
static char* hostText(const char* text) {
  return const_cast<char*>(text);
}

// Who may say what a name stands for.
enum class Source {
  anyone,  // the client's headers, where the host has nothing
  host,    // the host alone, with the guard `identity`
};

struct EquivalentName {
  const char* variable;
  const char* hostName;
  Source source;
};

// What the host calls the same thing. A server knows requests as CGI programs do; the
// host has each fact once, under a name of its own, in one of four blocks.
static const EquivalentName nesequivHeaders[] = {
    {"CONTENT_LENGTH", "content-length", Source::anyone},
    {"CONTENT_TYPE", "content-type", Source::anyone},
    {"ACCEPT", "accept", Source::anyone},
    {"ACCEPT_ENCODING", "accept-encoding", Source::anyone},
    {"ACCEPT_LANGUAGE", "accept-language", Source::anyone},
    {"AUTHORIZATION", "authorization", Source::anyone},
    {"COOKIE", "cookie", Source::anyone},
    {"IF_MODIFIED_SINCE", "if-modified-since", Source::anyone},
    {"REFERER", "referer", Source::anyone},
    {"USER_AGENT", "user-agent", Source::anyone},
    {"USER_DEFINED", "user-defined", Source::anyone},
    {"QUERY_STRING", "query", Source::host},
    {"REQUEST_LINE", "clf-request", Source::host},
    {"REQUEST_METHOD", "method", Source::host},
    {"SCRIPT_NAME", "uri", Source::host},
    {"SERVER_PROTOCOL", "protocol", Source::host},
    {"AUTH_TYPE", "auth-type", Source::host},
    {"PATH_INFO", "path-info", Source::host},
    {"REMOTE_USER", "auth-user", Source::host},
    {"HTTPS_KEYSIZE", "keysize", Source::host},
    {"HTTPS_SECRETSIZE", "secret-keysize", Source::host},
    {"REMOTE_ADDR", "ip", Source::host},
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

// Whether only the host may say what a name stands for, however it is spelled: the
// variables, and what the host itself calls them.
static bool isHostsWord(const char* name) {
  constexpr const char* kOtherWords[] = {"auth-cert", "dns"};
  for (const EquivalentName& row : nesequivHeaders) {
    if (row.source != Source::host) continue;
    if (isSpellingOf(name, row.variable) || isSpellingOf(name, row.hostName)) return true;
  }
  for (const SpecialVariable& special : kSpecialVariables)
    if (isSpellingOf(name, special.name)) return true;
  for (const char* word : kOtherWords)
    if (isSpellingOf(name, word)) return true;
  return false;
}

// The spelling in which variables are asked for; a header is hardly ever written so.
static bool isVariableSpelling(const char* name) {
  return std::strpbrk(name, "abcdefghijklmnopqrstuvwxyz-") == nullptr;
}

// The client's headers come last: a client must not overrule what the host knows of
// the request. An empty value counts as none, so that it can't hide one further on.
static const char* searchBlocks(vesk_request* req, const char* name, Source source) {
  const Request* rq = requestOf(req);
  const struct {
    pblock* block;
    const char* label;
  } places[] = {{rq->reqpb, "rq->reqpb"},
                {rq->vars, "rq->vars"},
                {sessionOf(req)->client, "sn->client"},
                {source == Source::host ? nullptr : rq->headers, "rq->headers"}};
  for (const auto& place : places) {
    const char* value = place.block ? pblock_findval(name, place.block) : nullptr;
    if (!value || !*value) continue;
    req->trace(req, "   %.100s: %.200s [Found in: %s]", name,
               shownValue(req, name, value), place.label);
    return value;
  }
  req->trace(req, "   %.100s: [not found]", name);
  return nullptr;
}

const char* getOtherHeader(vesk_request* req, const char* name) {
  return searchBlocks(req, name, Source::anyone);
}

// A variable on its way through the spellings. All are as long as the name, so one
// buffer serves them in turn: `work`, which begins in upper case with underscores.
struct Search {
  vesk_request* req;
  const char* name;  // as the caller spells it
  char* work;
  Source source;
};

static const char* searchWork(const Search& search) {
  return searchBlocks(search.req, search.work, search.source);
}

// The rows are few next to the parameters that each search of the blocks goes through.
static const char* findEquivalent(const Search& search) {
  for (const EquivalentName& row : nesequivHeaders) {
    if (std::strcmp(row.variable, search.work) == 0)
      return searchBlocks(search.req, row.hostName, search.source);
  }
  return nullptr;
}

// Searches the blocks in every spelling. The spelling of CGI comes first, and with it the
// host's own name for the same thing: else a client's header in another spelling would
// win.
static const char* searchSpellings(const Search& search) {
  const char* value = searchWork(search);
  if (!value) value = findEquivalent(search);
  if (value) return value;

  fromUnderscoresToDashes(search.req, search.work);
  value = searchWork(search);
  if (value) return value;

  toLowerCaseWithDashes(search.req, search.name, search.work);
  value = searchWork(search);
  if (value) return value;

  fromDashesToUnderscores(search.req, search.work);
  return searchWork(search);
}

static const char* resolve(const Search& search) {
  toUpperCaseWithUnderscores(search.req, search.name, search.work);
  const SpecialVariable* special = findSpecial(search.work);
  if (!special) return searchSpellings(search);

  const char* value = special->value(search.req, search.name);
  if (value || special->value != remoteHost) return value;
  // A client without a name is named by its address; the names are equally long.
  static_assert(sizeof "REMOTE_HOST" == sizeof "REMOTE_ADDR");
  std::memcpy(search.work, "REMOTE_ADDR", sizeof "REMOTE_ADDR");
  return searchSpellings(search);
}

// The client's header of exactly that spelling: a server that asks in the client's own
// spelling wants that header, also where the name means something here.
static const char* findAsSent(vesk_request* req, const char* name) {
  const Request* rq = requestOf(req);
  const char* sent = rq && rq->headers ? pblock_findval(name, rq->headers) : nullptr;
  if (sent) req->trace(req, "   %.100s: %.200s", name, shownValue(req, name, sent));
  return sent;
}

const char* getHeader(vesk_request* req, const char* name) {
  const bool hosts = guarded(req, Guard::identity) && isHostsWord(name);
  const bool variable = hosts && isVariableSpelling(name);
  const char* sent = variable ? nullptr : findAsSent(req, name);
  if (sent) return sent;
  const RequestBlock work{req, newBlock(req, textLength(name) + 1)};
  if (!work.bytes) return nullptr;
  return resolve({req, name, work.bytes, hosts ? Source::host : Source::anyone});
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
