#include "nsapi/request_variables.h"

#include <nsapi.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <span>
#include <string_view>

#include "context/guards.h"
#include "context/memory.h"
#include "context/privacy.h"
#include "context/request_block.h"
#include "context/request_setup.h"
#include "context/spelling.h"
#include "context/text.h"
#include "nsapi/host_memory.h"
#include "nsapi/host_objects.h"
#include "proxy/wire.h"

// The host's functions take texts that they don't change without `const`.
static char* hostText(const char* text) {
  return const_cast<char*>(text);
}

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
  *std::to_chars(value, value + kPortTextSize - 1, conf_getglobals()->Vport).ptr = '\0';
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

// Who may say what a name stands for.
enum class Source {
  anyone,  // the client's headers, where the host has nothing
  host,    // the host alone, with the guard `identity`
};

// The spellings behind the one of CGI, in the order of the search. All are as long as
// the name, and no name of the table is longer than this.
struct Spellings {
  static constexpr std::size_t kMost = 24;
  char dashed[kMost];            // QUERY-STRING
  char lowerDashed[kMost];       // query-string
  char lowerUnderscored[kMost];  // query_string
};

static constexpr Spellings spellingsOf(std::string_view name) {
  Spellings made{};
  for (std::size_t i = 0; i < name.size(); ++i) {
    const char c = name[i];
    const char lower = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    made.dashed[i] = c == '_' ? '-' : c;
    made.lowerDashed[i] = c == '_' ? '-' : lower;
    made.lowerUnderscored[i] = lower;
  }
  return made;
}

// One bit of 64, by a name's first two characters: what no name of a set has, none of its
// names begins with.
static constexpr std::uint64_t markOf(const char* name) {
  constexpr std::uint32_t kScatter = 0x9e3779b1U;
  const auto first = static_cast<unsigned char>(name[0]);
  const auto second = static_cast<unsigned char>(first != 0 ? name[1] : 0);
  return std::uint64_t{1} << ((first * 256U + second) * kScatter >> 26U);
}

// The marks of all names in each of the blocks. For a request that asks for many names,
// most of which are not there; the blocks must stay as they are meanwhile.
struct KnownNames {
  std::uint64_t reqpb;
  std::uint64_t vars;
  std::uint64_t client;
  std::uint64_t headers;
};
constexpr KnownNames kAnyName = {UINT64_MAX, UINT64_MAX, UINT64_MAX, UINT64_MAX};

static std::uint64_t marksOf(const pblock* block) {
  BlockWalk walk{block, 0, nullptr};
  std::uint64_t marks = 0;
  while (const pb_param* param = nextParameter(&walk)) marks |= markOf(param->name);
  return marks;
}

static KnownNames knownNamesOf(const vesk_request* req) {
  const Request* rq = requestOf(req);
  return {marksOf(rq->reqpb), marksOf(rq->vars), marksOf(sessionOf(req)->client),
          marksOf(rq->headers)};
}

// A variable, and what the host calls the same thing. A server knows requests as CGI
// programs do; the host has each fact once, under a name of its own, in one of four
// blocks, or gives it by a function. Its spellings stand here ready, since every request
// asks for a dozen of them, and most of those in vain.
struct Variable {
  constexpr Variable(std::string_view spelled, std::string_view own, Source who)
      : name(spelled), hostName(own), source(who), spellings(spellingsOf(spelled)) {}
  constexpr Variable(std::string_view spelled,
                     const char* (*function)(vesk_request*, const char*))
      : name(spelled), source(Source::host), special(function) {}

  std::string_view name;      // in upper case with underscores
  std::string_view hostName;  // empty: none
  Source source;
  const char* (*special)(vesk_request* req, const char* name) = nullptr;
  Spellings spellings{};
};

// Those that every frame carries come first, in the order of VARIABLE_NAMES.
static constexpr Variable kVariables[] = {
    {"QUERY_STRING", "query", Source::host},
    {"REQUEST_METHOD", "method", Source::host},
    {"SCRIPT_NAME", "uri", Source::host},
    {"PATH_INFO", "path-info", Source::host},
    {"REMOTE_HOST", remoteHost},
    {"REMOTE_ADDR", "ip", Source::host},
    {"SERVER_NAME", serverName},
    {"SERVER_PORT", serverPort},
    {"SERVER_PROTOCOL", "protocol", Source::host},
    {"PATH_TRANSLATED", pathTranslated},
    {"SERVER_PORT_SECURE", serverPortSecure},
    {"REMOTE_USER", "auth-user", Source::host},
    {"AUTH_TYPE", "auth-type", Source::host},
    {"HOST", {}, Source::anyone},
    {"COOKIE", "cookie", Source::anyone},
    {"CONTENT_LENGTH", "content-length", Source::anyone},
    {"CONTENT_TYPE", "content-type", Source::anyone},
    {"ACCEPT", "accept", Source::anyone},
    {"ACCEPT_ENCODING", "accept-encoding", Source::anyone},
    {"ACCEPT_LANGUAGE", "accept-language", Source::anyone},
    {"AUTHORIZATION", "authorization", Source::anyone},
    {"IF_MODIFIED_SINCE", "if-modified-since", Source::anyone},
    {"REFERER", "referer", Source::anyone},
    {"USER_AGENT", "user-agent", Source::anyone},
    {"USER_DEFINED", "user-defined", Source::anyone},
    {"REQUEST_LINE", "clf-request", Source::host},
    {"HTTPS_KEYSIZE", "keysize", Source::host},
    {"HTTPS_SECRETSIZE", "secret-keysize", Source::host},
    {"SERVER_SOFTWARE", serverSoftware},
    {"GATEWAY_INTERFACE", gatewayInterface},
    {"HTTPS", https},
};

// By exact spelling.
static const Variable* findVariable(std::string_view name) {
  for (const Variable& variable : kVariables)
    if (variable.name == name) return &variable;
  return nullptr;
}

// Whether only the host may say what a name stands for, however it is spelled: the
// variables, and what the host itself calls them.
static bool isHostsWord(std::string_view name) {
  constexpr std::string_view kOtherWords[] = {"auth-cert", "dns"};
  const auto means = [name](std::string_view word) {
    return !word.empty() && word.size() == name.size() &&
           isSpellingOf(name.data(), word.data());
  };
  for (const Variable& variable : kVariables) {
    if (variable.source != Source::host) continue;
    if (means(variable.name) || means(variable.hostName)) return true;
  }
  return std::any_of(std::begin(kOtherWords), std::end(kOtherWords), means);
}

// The spelling in which variables are asked for; a header is hardly ever written so.
static bool isVariableSpelling(std::string_view name) {
  return std::none_of(name.begin(), name.end(),
                      [](char c) { return c == '-' || (c >= 'a' && c <= 'z'); });
}

// An empty value counts as none, so that it can't hide one further on. What the trace
// line shows is made out only where somebody reads it.
static const char* searchBlock(vesk_request* req, const char* name, pblock* block,
                               const char* label) {
  const char* value = block ? pblock_findval(name, block) : nullptr;
  if (!value || !*value) return nullptr;
  const char* shown = isTraced(req) ? shownValue(req, name, value) : value;
  req->trace(req, "   %.100s: %.200s [Found in: %s]", name, shown, label);
  return value;
}

// The client's headers come last: a client must not overrule what the host knows of
// the request.
static const char* searchBlocks(vesk_request* req, const char* name, Source source,
                                const KnownNames& known = kAnyName) {
  const Request* rq = requestOf(req);
  const std::uint64_t mark = markOf(name);
  const char* value = nullptr;
  if (known.reqpb & mark) value = searchBlock(req, name, rq->reqpb, "rq->reqpb");
  if (!value && known.vars & mark) value = searchBlock(req, name, rq->vars, "rq->vars");
  if (!value && known.client & mark)
    value = searchBlock(req, name, sessionOf(req)->client, "sn->client");
  if (!value && known.headers & mark && source != Source::host)
    value = searchBlock(req, name, rq->headers, "rq->headers");
  if (!value) req->trace(req, "   %.100s: [not found]", name);
  return value;
}

const char* getOtherHeader(vesk_request* req, const char* name) {
  return searchBlocks(req, name, Source::anyone);
}

// Searches the blocks for the first name that has a value; null stands for none.
static const char* searchNames(vesk_request* req, std::span<const char* const> names,
                               Source source, const KnownNames& known) {
  for (const char* name : names) {
    const char* value = name ? searchBlocks(req, name, source, known) : nullptr;
    if (value) return value;
  }
  return nullptr;
}

// Searches the blocks in every spelling of a variable. The one of CGI comes first, and
// with it the host's own name for the same thing: else a client's header in another
// spelling would win.
static const char* searchVariable(vesk_request* req, const Variable& variable,
                                  Source source, const KnownNames& known) {
  const char* const names[] = {variable.name.data(), variable.hostName.data(),
                               variable.spellings.dashed, variable.spellings.lowerDashed,
                               variable.spellings.lowerUnderscored};
  return searchNames(req, names, source, known);
}

// A client without a name is named by its address.
static const char* searchAddress(vesk_request* req, Source source) {
  constexpr const char* kNames[] = {"REMOTE_ADDR", "ip", "REMOTE-ADDR", "remote-host",
                                    "remote_host"};
  return searchNames(req, kNames, source, kAnyName);
}

// `asked` is the caller's spelling.
static const char* callSpecial(vesk_request* req, const Variable& variable,
                               const char* asked, Source source) {
  const char* value = variable.special(req, asked);
  if (value || variable.special != remoteHost) return value;
  return searchAddress(req, source);
}

// The same for a name that is no variable's, or is spelled otherwise. All spellings are
// as long as the name, so one buffer, `work`, serves them in turn.
static const char* resolveAny(vesk_request* req, const char* name, char* work,
                              Source source) {
  const KnownNames known = knownNamesOf(req);
  toUpperCaseWithUnderscores(req, name, work);
  const Variable* variable = findVariable(work);
  if (variable && variable->special) return callSpecial(req, *variable, name, source);
  if (variable) return searchVariable(req, *variable, source, known);

  const char* value = searchBlocks(req, work, source, known);
  if (value) return value;

  fromUnderscoresToDashes(req, work);
  value = searchBlocks(req, work, source, known);
  if (value) return value;

  toLowerCaseWithDashes(req, name, work);
  value = searchBlocks(req, work, source, known);
  if (value) return value;

  fromDashesToUnderscores(req, work);
  return searchBlocks(req, work, source, known);
}

// The client's header of exactly that spelling: a server that asks in the client's own
// spelling wants that header, also where the name means something here.
static const char* findAsSent(vesk_request* req, const char* name) {
  const Request* rq = requestOf(req);
  const char* sent = rq && rq->headers ? pblock_findval(name, rq->headers) : nullptr;
  if (sent) req->trace(req, "   %.100s: %.200s", name, shownValue(req, name, sent));
  return sent;
}

// What a variable of the table stands for.
static const char* getVariable(vesk_request* req, const Variable& variable,
                               const KnownNames& known) {
  const char* name = variable.name.data();
  const bool hosts = variable.source == Source::host && guarded(req, Guard::identity);
  const Source source = hosts ? Source::host : Source::anyone;
  const char* sent = hosts ? nullptr : findAsSent(req, name);
  if (sent) return sent;
  return variable.special ? callSpecial(req, variable, name, source)
                          : searchVariable(req, variable, source, known);
}

// What a name in any other spelling stands for.
static const char* getAny(vesk_request* req, std::string_view name) {
  constexpr std::size_t kUsual = 64;  // names that are longer cost an allocation
  const bool plain = !isVariableSpelling(name);
  const char* sent = plain ? findAsSent(req, name.data()) : nullptr;
  if (sent) return sent;
  const bool hosts = guarded(req, Guard::identity) && isHostsWord(name);
  sent = plain || hosts ? nullptr : findAsSent(req, name.data());
  if (sent) return sent;
  char small[kUsual];
  const bool isUsual = name.size() < sizeof small;
  const RequestBlock large{
      req, isUsual ? nullptr : newBlock(req, static_cast<std::int64_t>(name.size()) + 1)};
  char* work = isUsual ? small : large.bytes;
  if (!work) return nullptr;
  return resolveAny(req, name.data(), work, hosts ? Source::host : Source::anyone);
}

const char* getHeader(vesk_request* req, const char* name) {
  const Variable* variable = findVariable(name);
  return variable ? getVariable(req, *variable, kAnyName) : getAny(req, name);
}

void getVariables(vesk_request* req, const char** values) {
  const KnownNames known = knownNamesOf(req);
  for (std::int32_t i = 0; i < kVariableCount; ++i)
    values[i] = getVariable(req, kVariables[i], known);
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
