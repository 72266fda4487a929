#include "context/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "context/guards.h"
#include "context/read_ahead.h"
#include "context/vesk_error.h"

// One transfer of bytes, in either direction.
struct Transfer {
  vesk_request* req;
  std::int32_t sock;
  std::int32_t length;  // bytes wanted
  std::int32_t count;   // bytes moved so far
  bool peerClosed;      // receiving only
};

// What a transfer waits for.
struct Readiness {
  short event;  // of poll
  const char* caller;
  const char* name;  // of the event
  bool untried;      // nothing has looked for bytes yet: what came still counts
};

void initializeSocketTimeouts(vesk_request* /*req*/, std::int32_t* timeouts) {
  timeouts[0] = kDefaultConnectTimeout;
  timeouts[1] = kDefaultSendTimeout;
  timeouts[2] = kDefaultRecvTimeout;
}

struct TcpOption {
  int level;
  int name;
  int value;
};

// Has the kernel find a peer that vanished without a word: a minute of silence, then a
// probe every ten seconds; and bytes that nobody acknowledges for as long as a send may
// take end the connection. What the kernel refuses here leaves it as patient as before.
static void watchPeer(const vesk_request* req, std::int32_t sock) {
  constexpr int kMillisPerSecond = 1000;
  constexpr int kMostIdle = 60;  // seconds
  // Those of requests, who take over what the connector's own thread has connected.
  const int receive = std::max(req->recvTimeout, soTimeouts[2]);
  const int limit = std::max(receive / kMillisPerSecond, 1);
  const TcpOption options[] = {
      {SOL_SOCKET, SO_KEEPALIVE, 1},
      {IPPROTO_TCP, TCP_KEEPIDLE, std::min(limit, kMostIdle)},
      {IPPROTO_TCP, TCP_KEEPINTVL, 10},
      {IPPROTO_TCP, TCP_KEEPCNT, 3},
      {IPPROTO_TCP, TCP_USER_TIMEOUT, std::max({req->sendTimeout, soTimeouts[1], 0})},
  };
  for (const TcpOption& option : options)
    (void)setsockopt(sock, option.level, option.name, &option.value, sizeof option.value);
}

// An option that can't be set costs speed or a limit, not the connection.
static void setSocketOptions(vesk_request* req, std::int32_t sock) {
  int flags = fcntl(sock, F_GETFL);
  if (flags < 0) {
    req->lastError = errno;
    req->log(req, "Warning: could not get socket flags: %s",
             describeError(req->lastError));
    flags = 0;
  }
  if (fcntl(sock, F_SETFL, flags | O_NONBLOCK) < 0) {
    req->lastError = errno;
    req->log(req, "Warning: could not set socket to non-blocking: %s",
             describeError(req->lastError));
  }
  const int on = 1;
  if (setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) < 0) {
    req->lastError = errno;
    req->log(req, "Warning: could not set TCP_NODELAY: %s",
             describeError(req->lastError));
  }
  if (guarded(req, Guard::idle)) watchPeer(req, sock);
}

// The moment, in ticks, at which a wait of so many milliseconds ends; kNoEnd: never.
constexpr std::int64_t kNoEnd = INT64_MAX;

static std::int64_t endOfWait(vesk_request* req, std::int32_t limit) {
  const std::int64_t end = limit < 0 ? kNoEnd : req->ticks(req) + limit;
  return req->deadline != 0 ? std::min(end, req->deadline) : end;
}

bool isPastDeadline(vesk_request* req) {
  return req->deadline != 0 && req->ticks(req) >= req->deadline;
}

// How long poll may sleep until the next look at the clock; -1: without end.
static int nextSleep(vesk_request* req, std::int64_t end) {
  constexpr std::int64_t kShutdownLook = 200;  // a shutdown is noticed within this
  constexpr std::int64_t kLongest = INT32_MAX;
  std::int64_t sleep = kLongest;
  if (end != kNoEnd) sleep = std::clamp(end - req->ticks(req), std::int64_t{0}, kLongest);
  if (req->endsAtShutdown) sleep = std::min(sleep, kShutdownLook);
  return sleep == kLongest ? -1 : static_cast<int>(sleep);
}

static bool isCutShort(const vesk_request* req) {
  return req->endsAtShutdown && isShuttingDown();
}

// poll, once, as the guard has it: what interrupts the sleep doesn't begin the wait anew.
static int pollUntil(vesk_request* req, pollfd* wait, std::int64_t end) {
  for (;;) {
    const int ready = poll(wait, 1, nextSleep(req, end));
    if (ready > 0 || (ready < 0 && errno != EINTR)) return ready;
    if (isCutShort(req) || (end != kNoEnd && req->ticks(req) >= end)) return 0;
  }
}

static int pollWithin(vesk_request* req, pollfd* wait, std::int32_t limit) {
  const bool watched =
      guarded(req, Guard::deadline) || req->deadline != 0 || req->endsAtShutdown;
  if (!watched) return poll(wait, 1, limit);
  return pollUntil(req, wait, endOfWait(req, limit));
}

// Why poll ended without room to write. When even that can't be told, a refusal is the
// likeliest: the server is then tried again after its pause.
static std::int32_t pendingSocketError(vesk_request* req, std::int32_t sock) {
  int error = 0;
  socklen_t size = sizeof error;
  if (getsockopt(sock, SOL_SOCKET, SO_ERROR, &error, &size) == 0) return error;
  req->log(req, "Warning: could not get SO_ERROR: %s", describeError(errno));
  return ECONNREFUSED;
}

// Waits for the end of a connect in progress: 0 or the error.
static std::int32_t awaitConnect(vesk_request* req, std::int32_t sock) {
  pollfd wait = {.fd = sock, .events = POLLOUT, .revents = 0};
  const int ready = pollWithin(req, &wait, req->connectTimeout);
  if (ready == 0) return ETIMEDOUT;
  if (ready < 0) return errno;
  // A refused connect reports a hang-up together with room to write: it is asked for
  // first.
  if (wait.revents & POLLHUP) {
    req->trace(req, "veskConnect: POLLHUP so ECONNREFUSED");
    return ECONNREFUSED;
  }
  if (!(wait.revents & POLLOUT)) return pendingSocketError(req, sock);
  return 0;
}

// One pass of a connect: 0, the error, or EINTR when it is to be made again. The
// next pass then finds the connect in progress or made, which is no failure.
static std::int32_t connectOnce(vesk_request* req, std::int32_t sock,
                                const sockaddr_in* address) {
  const auto* generic = static_cast<const sockaddr*>(static_cast<const void*>(address));
  if (connect(sock, generic, sizeof *address) == 0) return 0;
  const std::int32_t error = errno;
  if (error == EISCONN) return 0;
  if (error == EAGAIN || error == EINPROGRESS || error == EALREADY)
    return awaitConnect(req, sock);
  return error;
}

static void reportConnectFailure(vesk_request* req, std::int32_t sock, const char* dotted,
                                 int port) {
  req->log(req, "%s:%d connect failed[%d]: %d %s", dotted, port, sock, req->lastError,
           describeError(req->lastError));
}

std::int32_t veskConnect(vesk_request* req, const sockaddr_in* address) {
  const std::int32_t sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
  if (sock < 0) {
    req->lastError = errno;
    req->log(req, "socket() %s", describeError(req->lastError));
    return -1;
  }
  setSocketOptions(req, sock);

  // A signal doesn't undo a connect under way: asking again tells how far it has come.
  // The warnings above must not count as its failure, so each pass sets the error anew.
  do {
    req->lastError = connectOnce(req, sock, address);
  } while (req->lastError == EINTR);

  char dotted[INET_ADDRSTRLEN] = "";
  (void)inet_ntop(AF_INET, &address->sin_addr, dotted, sizeof dotted);
  const int port = ntohs(address->sin_port);
  if (req->lastError != 0) {
    reportConnectFailure(req, sock, dotted, port);
    (void)close(sock);  // nothing was sent that a result could be about
    return -1;
  }
  req->traceE(req, kTraceDetail, "%s:%d veskConnect [%d]", dotted, port, sock);
  return sock;
}

// A transfer goes on behind a signal, and ends at the first error of any other kind.
static bool wantsMore(const Transfer* transfer) {
  const std::int32_t error = transfer->req->lastError;
  return transfer->count < transfer->length && !transfer->peerClosed &&
         (error == 0 || error == EINTR);
}

// Whether bytes, or an end that is no error, were there before the hang-up.
static bool hasAnswer(std::int32_t sock) {
  char byte = 0;
  return recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
}

// Waits until a socket is ready: 0, or the error, ETIMEDOUT when the limit of so many
// milliseconds has passed.
static std::int32_t awaitReady(vesk_request* req, std::int32_t sock,
                               const Readiness& ready, std::int32_t limit) {
  pollfd wait = {.fd = sock, .events = ready.event, .revents = 0};
  const int count = pollWithin(req, &wait, limit);
  if (count == 0) return ETIMEDOUT;
  if (count < 0) return errno;
  // The hang-up is asked for before the event: a server that has left in the middle of a
  // conversation can't finish it, whatever bytes still wait.
  const bool hungUp = (wait.revents & POLLHUP) != 0;
  if (hungUp && !(ready.untried && hasAnswer(sock))) {
    req->trace(req, "%s: POLLHUP so ECONNRESET", ready.caller);
    return ECONNRESET;
  }
  if (!(wait.revents & ready.event)) {
    req->trace(req, "%s: %s not set so ECONNRESET", ready.caller, ready.name);
    return ECONNRESET;
  }
  return 0;
}

// The end of a receive limit: 0 when the server still takes pings, else the error.
static std::int32_t judgeRecvLimit(vesk_request* req, std::int32_t sock,
                                   veskProxy* proxy) {
  if (isShuttingDown()) {
    req->traceE(req, kTraceDetail, "veskRecv [%d] shutdown", sock);
    return ETIMEDOUT;
  }
  if (!proxy || !req->pingServer || isPastDeadline(req)) return ETIMEDOUT;
  // A signal in the pass before is no failure of this request, and would have the
  // ping go without its connect while the server is in its retry pause.
  req->lastError = 0;
  if (!req->pingServer(req, proxy)) return ETIMEDOUT;
  req->traceE(req, kTraceDetail,
              "veskRecv [%d] timeout but server reachable so recv again", sock);
  return 0;
}

// Waits for bytes to receive: 0 to go on, or the error. `untried` as in Readiness.
static std::int32_t awaitReadable(vesk_request* req, std::int32_t sock, veskProxy* proxy,
                                  bool untried) {
  const Readiness readable = {POLLIN, "veskRecv", "POLLIN", untried};
  const std::int32_t error = awaitReady(req, sock, readable, req->recvTimeout);
  return error == ETIMEDOUT ? judgeRecvLimit(req, sock, proxy) : error;
}

// Whether the request has sent something since it last read. An answer is hardly ever
// there at once: a look before the wait would be in vain.
static bool isQuiet(vesk_request* req, std::int32_t sock) {
  veskReadAhead* ahead = req->readAhead;
  const bool quiet = ahead && ahead->quiet == sock && !peekAhead(req, sock, 1);
  if (quiet) ahead->quiet = -1;
  return quiet;
}

// One pass; gives what lastError becomes. An error of the pass before, which can
// only be EINTR, and what a ping left there do not outlive it.
static std::int32_t recvPass(Transfer* transfer, void* buffer, veskProxy* proxy) {
  const auto rest = static_cast<std::size_t>(transfer->length - transfer->count);
  // A server that never lets a read wait would else never meet the deadline, nor the
  // shutdown.
  if (isPastDeadline(transfer->req) || isCutShort(transfer->req)) return ETIMEDOUT;
  if (isQuiet(transfer->req, transfer->sock)) {
    const std::int32_t error =
        awaitReadable(transfer->req, transfer->sock, proxy, /*untried=*/true);
    if (error != 0) return error;
  }
  const ssize_t result = recvAhead(transfer->req, transfer->sock,
                                   static_cast<char*>(buffer) + transfer->count, rest);
  if (result >= 0) {
    transfer->count += static_cast<std::int32_t>(result);
    transfer->peerClosed = result == 0;
    return 0;
  }
  if (errno != EAGAIN) return errno;
  return awaitReadable(transfer->req, transfer->sock, proxy, /*untried=*/false);
}

// An error of 0 with too small a count is how callers tell the end of the stream from a
// failure, so the field must not keep what was there before.
std::int32_t veskRecv(vesk_request* req, std::int32_t sock, void* buffer,
                      std::int32_t length, veskProxy* proxy) {
  Transfer transfer = {req, sock, length, 0, false};
  req->lastError = 0;
  while (wantsMore(&transfer)) req->lastError = recvPass(&transfer, buffer, proxy);

  if (req->lastError == 0) return transfer.count;
  req->trace(req, "recv failed[%d]: %d %s", sock, req->lastError,
             describeError(req->lastError));
  return -1;
}

// A server that has gone must not end the host's process, and how the process
// deals with SIGPIPE is the host's affair: so no signal is raised at all.
static std::int32_t sendPass(Transfer* transfer, const void* buffer) {
  const auto rest = static_cast<std::size_t>(transfer->length - transfer->count);
  const ssize_t result =
      send(transfer->sock, static_cast<const char*>(buffer) + transfer->count, rest,
           MSG_NOSIGNAL);
  if (result >= 0) {
    transfer->count += static_cast<std::int32_t>(result);
    transfer->req->bytesSent += result;
    if (transfer->req->readAhead) transfer->req->readAhead->quiet = transfer->sock;
    return 0;
  }
  if (errno != EAGAIN) return errno;
  constexpr Readiness kWritable = {POLLOUT, "veskSend", "POLLOUT", false};
  vesk_request* req = transfer->req;
  return awaitReady(req, transfer->sock, kWritable, req->sendTimeout);
}

std::int32_t veskSend(vesk_request* req, std::int32_t sock, const void* buffer,
                      std::int32_t length) {
  Transfer transfer = {req, sock, length, 0, false};
  req->lastError = 0;
  while (wantsMore(&transfer)) req->lastError = sendPass(&transfer, buffer);

  if (req->lastError == 0) return transfer.count;
  req->trace(req, "send failed[%d]: %d %s", sock, req->lastError,
             describeError(req->lastError));
  return -1;
}

std::int32_t veskPeek(vesk_request* /*req*/, std::int32_t sock) {
  char byte = 0;
  ssize_t seen = 0;
  do {
    seen = recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
  } while (seen < 0 && errno == EINTR);
  if (seen > 0) return kIdleBytes;
  return seen < 0 && errno == EAGAIN ? kIdleQuiet : kIdleEnded;
}

static void reportCloseFailure(vesk_request* req, const char* step, std::int32_t sock) {
  const std::int32_t error = errno;
  req->log(req, "socket %s[%d]: %d, %s", step, sock, error, describeError(error));
}

void veskCloseSocket(vesk_request* req, std::int32_t sock) {
  req->traceE(req, kTraceDetail, "veskCloseSocket [%d]", sock);
  dropReadAhead(req, sock);
  // After EPIPE the sending side is shut already.
  // lastError stays as it is from here on: what led to the close is still to be judged.
  const bool shut = req->lastError == EPIPE || shutdown(sock, SHUT_WR) == 0;
  if (!shut && errno != ENOTCONN) reportCloseFailure(req, "shutdown failed", sock);
  if (close(sock) != 0) reportCloseFailure(req, "close fail", sock);
}
