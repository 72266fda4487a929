#include "ctl/server_link.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>

#include "context/clock.h"
#include "context/vesk_error.h"
#include "ctl/display.h"
#include "ctl/stranger.h"
#include "properties/vesk_property.h"
#include "proxy/proxy_lifecycle.h"

namespace ctl {

constexpr double kMicrosPerMilli = 1000.0;
constexpr std::int32_t kMillisPerSecond = 1000;

std::string valueOf(const Properties& pairs, const std::string& key) {
  const auto found = std::find_if(pairs.begin(), pairs.end(),
                                  [&key](const auto& pair) { return pair.first == key; });
  return found == pairs.end() ? std::string() : found->second;
}

static std::string dottedOf(const addrinfo& found) {
  sockaddr_in address;
  std::memcpy(&address, found.ai_addr, sizeof address);
  char dotted[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &address.sin_addr, dotted, sizeof dotted);
  return dotted;
}

// The address of a name, or the reason that there is none.
static ServerAddress lookUp(const std::string& host) {
  addrinfo wanted{};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &found);
  if (error != 0)
    return {"", "no IPv4 address of this name: " + std::string(gai_strerror(error))};
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  return {dottedOf(*found), ""};
}

static bool isPort(std::string_view text) {
  constexpr int kMostPort = 65535;
  int port = 0;
  const char* end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, port);
  return read.ec == std::errc() && read.ptr == end && port > 0 && port <= kMostPort;
}

ServerAddress resolveServer(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0 || !isPort(text.substr(colon + 1)))
    return {"", "not HOST:PORT"};
  ServerAddress address = lookUp(text.substr(0, colon));
  if (address.failure.empty()) address.dotted += text.substr(colon);
  return address;
}

ServerLink::ServerLink(ToolRequest& owner, const std::string& dotted)
    : request(owner), proxy(veskProxyNew(owner.record())) {
  vesk_request* req = request.record();
  if (proxy && proxy->initProxy(proxy, req, dotted.c_str(), 0, /*temp=*/1) == 0) return;
  if (proxy) (void)proxy->destroyInetProxy(proxy, req);
  proxy = nullptr;
}

ServerLink::~ServerLink() {
  if (proxy) (void)proxy->destroyInetProxy(proxy, request.record());
}

static Properties pairsOf(const propertyTable& table) {
  Properties pairs;
  for (std::int32_t i = 0; i < table.count; ++i)
    pairs.emplace_back(table.entries[i].key, table.entries[i].value);
  return pairs;
}

SetAnswer ServerLink::ask(const std::string& set) {
  vesk_request* req = request.record();
  SetAnswer answer;
  if (!proxy) {
    answer.failure = "no memory";
    return answer;
  }
  request.restart();
  std::int32_t sequence = -1;
  const std::int64_t begin = monotonicMicros();
  propertyTable* table = proxy->fetchProps(req, proxy, set.c_str(), &sequence);
  answer.millis = static_cast<double>(monotonicMicros() - begin) / kMicrosPerMilli -
                  request.seen().connectMillis;
  if (!table) {
    // The connection is kept when the server has finished, if with nothing said.
    answer.failure = proxy->pool->freeConnections ? "has no such set" : whyFailed();
    return answer;
  }
  answer.pairs = pairsOf(*table);
  freeProperties(req, table);
  if (sequence != -1) answer.sequence = sequence;
  return answer;
}

static std::string secondsOf(std::int32_t millis) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%g s",
                      static_cast<double>(millis) / kMillisPerSecond);
  return text;
}

// Why there is no connection.
static std::string whyUnconnected(const vesk_request& req) {
  switch (req.lastError) {
    case ECONNREFUSED:
      return "refused";
    case EHOSTUNREACH:
    case ENETUNREACH:
      return "no route";
    case ETIMEDOUT:
      return "no connection in " + secondsOf(req.connectTimeout);
    default:
      return describeFailure(req.lastError);
  }
}

// Why a conversation that began has no end. The log line is the connector's own, and says
// more than the error where the server broke the protocol.
static std::string whyUnanswered(const vesk_request& req, const LineNotes& notes) {
  const std::string limit = secondsOf(req.conversationLimit);
  if (req.lastError == ETIMEDOUT && notes.received == 0)
    return "took the connection and sent no answer in " + limit;
  if (req.lastError == ETIMEDOUT) return "its answer had no end in " + limit;
  if (notes.tooLarge || req.lastError == ENOBUFS)
    return "announced a text too large to be one";
  if (req.lastError == EVESK_BUSY) return "busy";
  if (notes.received == 0) return "took the connection and closed it without an answer";
  if (req.lastError == ECONNRESET || req.lastError == EPIPE)
    return "closed the connection in the middle of its answer";
  if (req.lastError > 0) return visible(describeFailure(req.lastError));
  const std::string& line = notes.firstLog;
  return line.empty() ? "broke the protocol" : "broke the protocol: " + visible(line);
}

std::string ServerLink::whyFailed() {
  const vesk_request& req = *request.record();
  const LineNotes& notes = request.seen();
  if (!proxy) return "no memory";
  if (notes.connecting && !notes.connected) return whyUnconnected(req);
  // A server of another protocol may wait for words that it knows.
  constexpr std::int32_t kPatience = 500;
  const std::string bytes =
      notes.received != 0
          ? notes.firstBytes
          : tryOtherProtocols(proxy->pool->address, std::min(kPatience, req.recvTimeout));
  const std::string other = judgeFirstBytes(bytes);
  return other.empty() ? whyUnanswered(req, notes) : other;
}

}  // namespace ctl
