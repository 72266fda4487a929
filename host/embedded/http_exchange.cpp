#include "embedded/http_exchange.h"

#include <arpa/inet.h>
#include <time.h>

#include <cerrno>
#include <new>
#include <utility>

#include "layer/client_names.h"
#include "layer/outcome.h"
#include "layer/parameters.h"
#include "layer/status.h"
#include "layer/text.h"
#include "layer/uri.h"

namespace host {

// The API's records know no const; nobody writes through this one.
HttpExchange::HttpExchange(ServerState* server, Client* client, const RequestHead& head)
    : server_(server),
      client_(client),
      head_(head),
      writer_(this),
      settings_{client->local.port, const_cast<char*>(server->config->serverName.c_str()),
                client->local.tls ? 1 : 0},
      body_(client, server->config->limits),
      patience_{patienceOf(server->config->limits.sendTimeout,
                           server->config->limits.minSendRate)},
      keepAlive_(head.keepAlive && server->config->limits.keepAliveTimeout > 0 &&
                 !server->stopping) {
  body_.open(head);
}

static bool add(pblock* pb, const char* name, const std::string& value) {
  return addParameter(pb, name, value.c_str()) != nullptr;
}

static std::string lowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  return lower;
}

// The server that an absolute target names is the one that is meant, whatever the
// header says.
static bool addHeaders(pblock* headers, const RequestHead& head, bool allNames) {
  const std::string authority(head.authority);
  bool hostNamed = false;
  for (const HeaderField& field : head.fields) {
    const std::string name = lowerCase(field.name);
    if (!allNames && isHostsWord(name.c_str())) continue;
    const bool replaced = !authority.empty() && name == "host";
    hostNamed = hostNamed || replaced;
    if (!add(headers, name.c_str(), replaced ? authority : std::string(field.value))) {
      return false;
    }
  }
  return authority.empty() || hostNamed || add(headers, "host", authority);
}

static std::string protocolOf(const RequestHead& head) {
  return head.http11 ? "HTTP/1.1" : "HTTP/1.0";
}

// What logs show, of refused requests, too, as far as their line could be read.
bool HttpExchange::noteLine(HostRequest* request) const {
  if (head_.method.empty()) return true;
  return add(request->reqpb, "clf-request",
             std::string(head_.method) + " " + std::string(head_.target) + " " +
                 protocolOf(head_));
}

static bool addRequestLine(pblock* reqpb, const RequestHead& head, const std::string& uri,
                           std::string_view query) {
  const bool added = add(reqpb, "method", std::string(head.method)) &&
                     add(reqpb, "protocol", protocolOf(head)) && add(reqpb, "uri", uri);
  return added && (!query.data() || add(reqpb, "query", std::string(query)));
}

// The cipher and the client's certificate under the names that plug-ins and the
// servers behind the connector know. A certificate that wasn't verified has ended the
// handshake.
static bool addTls(HostRequest* request, const TlsFacts& tls) {
  pblock* client = request->session.client;
  const std::string size = std::to_string(tls.keySize);
  return add(client, "keysize", size) && add(client, "secret-keysize", size) &&
         add(client, "cipher", tls.cipher) &&
         add(request->vars, "vesk-attribute-javax.servlet.request.cipher_suite",
             tls.cipher) &&
         add(request->vars, "vesk-attribute-SSL_CLIENT_VERIFY",
             tls.certificate.empty() ? "NONE" : "SUCCESS") &&
         (tls.certificate.empty() || add(request->vars, "auth-cert", tls.certificate));
}

int HttpExchange::openRecords(HostRequest* request) {
  if (body_.tooLong()) {
    tellLimit("LimitRequestBody");
    return kContentTooLarge;
  }
  const std::size_t mark = head_.path.find('?');
  const std::string_view path = head_.path.substr(0, mark);
  std::string_view query;  // without data: there is none
  if (mark != std::string_view::npos) query = head_.path.substr(mark + 1);
  std::string uri;
  if (!decodeUri(path.empty() ? "/" : path, &uri)) return kBadRequest;
  if (uri.front() != '/') return kBadRequest;
  const bool filled = addRequestLine(request->reqpb, head_, uri, query) &&
                      addHeaders(request->headers, head_, server_->config->clientNames) &&
                      add(request->session.client, "ip", client_->address) &&
                      (!client_->local.tls || addTls(request, client_->channel->tls()));
  return filled ? 0 : kServerError;
}

// Notes why a client takes nothing any more.
bool HttpExchange::sent(bool whole) {
  if (!whole && patience_.met) tellLimit(patience_.met);
  return whole;
}

bool HttpExchange::send(std::span<iovec> parts, bool more) {
  return sent(sendAll(client_->channel.get(), parts, more, &patience_));
}

bool HttpExchange::sendFile(int file, std::int64_t offset, std::int64_t count) {
  return sent(sendWholeFile(client_->channel.get(), file, offset,
                            static_cast<std::size_t>(count), &patience_));
}

void HttpExchange::tellLimit(const char* name) {
  server_->limitLog->tell(name, client_->address);
}

int HttpExchange::readBody(unsigned char* buffer, int size) {
  // A final head that waits for its first block comes behind the interim one.
  if (body_.takeContinue() && !writer_.headSent()) {
    char text[] = "HTTP/1.1 100 Continue\r\n\r\n";
    iovec parts[] = {{text, sizeof(text) - 1}};
    if (!send(parts, false)) return -1;
  }
  if (!writer_.sendHead()) return -1;
  void* bytes = buffer;
  const int count = body_.read(static_cast<char*>(bytes), size);
  if (count < 0 && body_.limitMet()) tellLimit(body_.limitMet());
  return count;
}

int HttpExchange::startResponse(HostRequest* request) try {
  const std::string date = httpTime(time(nullptr));
  const HeadSettings settings{.http11 = head_.http11,
                              .headRequest = head_.headRequest,
                              .keepAlive = keepAlive_,
                              .outcome = outcomeOf(*request),
                              .date = date,
                              .server = server_->version};
  ResponseHead head =
      buildHead(request->status_num, request->reason, request->srvhdrs, settings);
  if (!head.rejected.empty()) {
    const std::string message = "response headers dropped: " + head.rejected;
    log(LOG_SECURITY, "protocol_start_response", request, message.c_str());
  }
  const bool body = head.framing != Framing::none;
  writer_.start(std::move(head));
  return body ? REQ_PROCEED : REQ_NOACTION;
} catch (const std::bad_alloc&) {
  closeAfterwards();
  return REQ_ABORTED;
}

int HttpExchange::writeBody(const char* bytes, int size) {
  if (writer_.started() && writer_.write(bytes, static_cast<std::size_t>(size))) {
    return size;
  }
  errno = EPIPE;
  return -1;
}

bool HttpExchange::writeFile(int file, std::int64_t offset, std::int64_t count) {
  return writer_.writeFile(file, offset, count);
}

std::int64_t HttpExchange::missing() const {
  return writer_.missing();
}

// What the client has sent of its body must be out of the way of its next request.
Fate HttpExchange::finish(Answer answer) {
  if (answer != Answer::whole) closeAfterwards();
  const bool ended =
      answer == Answer::broken ? writer_.cut() : writer_.finish(keepAlive_);
  const bool drained = ended && keepAlive_ && body_.drain();
  if (drained) return Fate::keep;
  if (body_.limitMet()) tellLimit(body_.limitMet());
  if (answer == Answer::broken) {
    if (writer_.endsByClose()) client_->channel->abandon();
    return Fate::close;
  }
  // Bytes that come to a closed socket would take the rest of the response with them.
  const bool parts = body_.unread() || !client_->input.waiting().empty() ||
                     client_->channel->holdsUnread() ||
                     unsentBytes(*client_->channel) > 0;
  return parts ? Fate::part : Fate::close;
}

bool HttpExchange::peer(sockaddr_in* address) {
  *address = sockaddr_in{};
  address->sin_family = AF_INET;
  address->sin_port = htons(client_->peer.port());
  return inet_pton(AF_INET, client_->address.c_str(), &address->sin_addr) == 1;
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
