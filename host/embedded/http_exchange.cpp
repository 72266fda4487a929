#include "embedded/http_exchange.h"

#include <arpa/inet.h>
#include <strings.h>
#include <time.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "embedded/client_input.h"
#include "layer/client_names.h"
#include "layer/outcome.h"
#include "layer/parameters.h"
#include "layer/status.h"
#include "layer/text.h"
#include "layer/uri.h"

namespace host {

constexpr char kContinue[] = "HTTP/1.1 100 Continue\r\n\r\n";

// The API's records know no const; nobody writes through this one.
HttpExchange::HttpExchange(ServerState* server, mg_connection* connection)
    : server_(server),
      connection_(connection),
      info_(mg_get_request_info(connection)),
      writer_(this),
      settings_{info_->server_port, const_cast<char*>(server->config->serverName.c_str()),
                0} {}

static bool isHttp11(const mg_request_info* info) {
  return info->http_version && std::strcmp(info->http_version, "1.1") == 0;
}

// CivetWeb keeps the connection by this rule; the head must announce the same.
bool HttpExchange::wantsKeepAlive() const {
  if (server_->stopping) return false;
  const char* wish = mg_get_header(connection_, "Connection");
  return wish ? strcasestr(wish, "keep-alive") != nullptr : isHttp11(info_);
}

// CivetWeb stops at its limit, at a folded line and at a name that is no name,
// and drops the rest without a word. The bytes behind the last header that it
// took, where it put NULs in place of the line's end, tell.
static bool headEndsBehind(const char* value) {
  const char* c = value + std::strlen(value) + 1;
  if (*c == '\0') ++c;
  return *c == '\r' || *c == '\n';
}

static bool headIsWhole(const mg_request_info* info) {
  if (info->num_headers == 0) return true;
  return headEndsBehind(info->http_headers[info->num_headers - 1].value);
}

static std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return lower;
}

static bool add(pblock* pb, const char* name, const std::string& value) {
  return addParameter(pb, name, value.c_str()) != nullptr;
}

static bool addHeaders(pblock* headers, const mg_request_info* info, bool allNames) {
  for (int i = 0; i < info->num_headers; ++i) {
    const mg_header& header = info->http_headers[i];
    if (!allNames && isHostsWord(header.name)) continue;
    std::string name = lowerCase(header.name);
    if (!add(headers, name.c_str(), std::string(trimmed(header.value, kBlanks))))
      return false;
  }
  return true;
}

// The path as the client sent it: behind scheme and host of an absolute URI.
static std::string_view rawPath(const mg_request_info* info) {
  std::string_view uri = info->request_uri;
  if (uri.empty() || uri.front() == '/') return uri;
  std::size_t host = uri.find("://");
  if (host == std::string_view::npos) return uri;
  std::size_t path = uri.find('/', host + 3);
  return path == std::string_view::npos ? "/" : uri.substr(path);
}

static bool addRequestLine(pblock* reqpb, const mg_request_info* info,
                           const std::string& uri) {
  std::string protocol = std::string("HTTP/") + info->http_version;
  std::string line = std::string(info->request_method) + " " + info->request_uri;
  if (info->query_string) line += std::string("?") + info->query_string;
  line += " " + protocol;
  bool added = add(reqpb, "clf-request", line) &&
               add(reqpb, "method", info->request_method) &&
               add(reqpb, "protocol", protocol) && add(reqpb, "uri", uri);
  return added && (!info->query_string || add(reqpb, "query", info->query_string));
}

int HttpExchange::readHead(HostRequest* request) {
  keepAlive_ = wantsKeepAlive();
  if (!headIsWhole(info_))
    return info_->num_headers < MG_MAX_HEADERS ? kBadRequest : kHeadTooLarge;
  int status = body_.open(info_);
  if (status) return status;
  std::string uri;
  if (!info_->request_uri || !decodeUri(rawPath(info_), &uri)) return kBadRequest;
  if (uri.empty() || (uri.front() != '/' && uri != "*")) return kBadRequest;
  bool filled = addRequestLine(request->reqpb, info_, uri) &&
                addHeaders(request->headers, info_, server_->config->clientNames) &&
                add(request->session.client, "ip", info_->remote_addr);
  return filled ? 0 : kServerError;
}

bool HttpExchange::send(const char* bytes, std::size_t size) {
  return mg_write(connection_, bytes, size) == static_cast<int>(size);
}

int HttpExchange::readBody(unsigned char* buffer, int size) {
  // A final head that waits for its first block comes behind the interim one.
  bool tell = body_.takeContinue() && !writer_.headSent();
  if (tell && !send(kContinue, sizeof(kContinue) - 1)) return -1;
  if (!writer_.sendHead()) return -1;
  return body_.read(connection_, buffer, size);
}

int HttpExchange::startResponse(HostRequest* request) try {
  const char* method = findValue(request->reqpb, "method");
  std::string date = httpTime(time(nullptr));
  HeadSettings settings{.http11 = isHttp11(info_),
                        .headRequest = method && std::strcmp(method, "HEAD") == 0,
                        .keepAlive = keepAlive_,
                        .outcome = outcomeOf(*request),
                        .date = date,
                        .server = server_->version};
  ResponseHead head =
      buildHead(request->status_num, request->reason, request->srvhdrs, settings);
  if (!head.rejected.empty()) {
    std::string message = "response headers dropped: " + head.rejected;
    log(LOG_SECURITY, "protocol_start_response", request, message.c_str());
  }
  bool body = head.framing != Framing::none;
  writer_.start(std::move(head));
  return body ? REQ_PROCEED : REQ_NOACTION;
} catch (const std::bad_alloc&) {
  closeAfterwards();
  return REQ_ABORTED;
}

int HttpExchange::writeBody(const char* bytes, int size) try {
  if (writer_.started() && writer_.write(bytes, static_cast<std::size_t>(size))) {
    return size;
  }
  errno = EPIPE;
  return -1;
} catch (const std::bad_alloc&) {
  closeAfterwards();
  errno = ENOMEM;
  return -1;
}

void HttpExchange::closeAfterwards() {
  keepAlive_ = false;
  mg_disable_connection_keep_alive(connection_);
}

std::int64_t HttpExchange::missing() const {
  return writer_.missing();
}

void HttpExchange::finish(Answer answer) {
  if (answer != Answer::whole) closeAfterwards();
  const bool ended =
      answer == Answer::broken ? writer_.cut() : writer_.finish(keepAlive_);
  if (ended && keepAlive_ && body_.drain(connection_)) {
    ClientInput::ofThread().expectHead();
  } else {
    closeAfterwards();
  }
}

bool HttpExchange::peer(sockaddr_in* address) {
  constexpr char kMapped[] = "::ffff:";
  const char* text = info_->remote_addr;
  if (strncasecmp(text, kMapped, sizeof(kMapped) - 1) == 0) text += sizeof(kMapped) - 1;
  *address = sockaddr_in{};
  address->sin_family = AF_INET;
  address->sin_port = htons(static_cast<std::uint16_t>(info_->remote_port));
  return inet_pton(AF_INET, text, &address->sin_addr) == 1;
}

// Asking a name server could block for seconds, and the address serves as well.
char* HttpExchange::clientName() {
  return nullptr;
}

char* HttpExchange::translateUri(const char* uri, Session* session) {
  return server_->stages->translate(uri, session);
}

conf_global_vars_s* HttpExchange::settings() {
  return &settings_;
}

void HttpExchange::log(int degree, const char* function, HostRequest*,
                       const char* message) {
  server_->log->write(degree, function, message);
}

}  // namespace host
