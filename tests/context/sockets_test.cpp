// The socket layer over real loopback sockets, with system calls that a test can
// make fail, be interrupted or come up empty.
#include "context/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <tuple>

#include "context/guards.h"
#include "context/read_ahead.h"
#include "support/recorded_request.h"

// What a call gives: those of poll have a script, and all others together have one.
// When the script is empty, the call is real.
struct Outcome {
  int result, error;
  short revents;
};

static std::deque<Outcome> results, polls;
static std::vector<int> pollLimits;

template <class Call>
static auto play(std::deque<Outcome>* script, Call real) -> decltype(real()) {
  if (script->empty()) return real();
  const Outcome outcome = script->front();
  script->pop_front();
  errno = outcome.error;
  return outcome.result;
}

extern "C" {
int __real_connect(int, const sockaddr*, socklen_t);
int __real_poll(pollfd*, nfds_t, int);
ssize_t __real_recv(int, void*, size_t, int);
ssize_t __real_send(int, const void*, size_t, int);

int __wrap_connect(int sock, const sockaddr* address, socklen_t size) {
  return play(&results, [=] { return __real_connect(sock, address, size); });
}
int __wrap_poll(pollfd* wait, nfds_t count, int limit) {
  pollLimits.push_back(limit);
  if (!polls.empty()) wait->revents = polls.front().revents;
  return play(&polls, [=] { return __real_poll(wait, count, limit); });
}
ssize_t __wrap_recv(int sock, void* buffer, size_t length, int flags) {
  return play(&results, [=] { return __real_recv(sock, buffer, length, flags); });
}
ssize_t __wrap_send(int sock, const void* buffer, size_t length, int flags) {
  return play(&results, [=] { return __real_send(sock, buffer, length, flags); });
}
}

constexpr Outcome kInterrupted = {-1, EINTR, 0};
constexpr Outcome kWouldBlock = {-1, EAGAIN, 0};
constexpr Outcome kInProgress = {-1, EINPROGRESS, 0};
constexpr Outcome kAlready = {-1, EALREADY, 0};
constexpr Outcome kLimitPassed = {0, 0, 0};
constexpr Outcome kNoMemory = {-1, ENOMEM, 0};
constexpr Outcome kWritable = {1, 0, POLLOUT};

static void listenAt(int listener, sockaddr_in* address) {
  auto* generic = reinterpret_cast<sockaddr*>(address);
  socklen_t size = sizeof *address;
  ASSERT_EQ(bind(listener, generic, size) | listen(listener, 4), 0);
  ASSERT_EQ(getsockname(listener, generic, &size), 0);
}

class Sockets : public testing::Test {
 protected:
  explicit Sockets() {
    results.clear();
    polls.clear();
    pollLimits.clear();
    t.req->connectTimeout = 2000;
    t.req->sendTimeout = 3000;
    t.req->recvTimeout = 4000;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
  }
  ~Sockets() override {
    setShuttingDown(false);
    for (const int sock : pair) (void)close(sock);
  }
  std::int32_t receive(std::int32_t length, veskProxy* proxy = nullptr) {
    return veskRecv(t.req, pair[0], buffer, length, proxy);
  }
  RecordedRequest t;
  int pair[2] = {-1, -1};
  sockaddr_in address{};
  char buffer[128] = "";
};

TEST_F(Sockets, connectGivesAReadySocketOrClosesTheRefusedOne) {
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  listenAt(listener, &address);
  const std::string name = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  const std::int32_t sock = veskConnect(t.req, &address);
  ASSERT_GE(sock, 0) << t.all();
  int noDelay = 0;
  socklen_t size = sizeof noDelay;
  EXPECT_EQ(getsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &noDelay, &size), 0);
  EXPECT_NE(noDelay, 0);
  EXPECT_NE(fcntl(sock, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(sock, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(t.tracedE(name + " veskConnect [" + std::to_string(sock) + "]"), 1);
  veskCloseSocket(t.req, sock);
  EXPECT_EQ(fcntl(sock, F_GETFL), -1);

  (void)close(listener);  // its number is the lowest free one, which connect uses
  EXPECT_EQ(veskConnect(t.req, &address), -1);
  EXPECT_EQ(t.req->lastError, ECONNREFUSED);
  EXPECT_EQ(t.logged(name + " connect failed[" + std::to_string(listener) +
                     "]: 111 111 Connection refused"),
            1)
      << t.all();
  EXPECT_EQ(fcntl(listener, F_GETFL), -1);
}

TEST_F(Sockets, connectEndsByWhatPollSaysAndSurvivesInterruptions) {
  using Script = std::deque<Outcome>;
  const std::tuple<Script, Script, std::int32_t, const char*> rows[] = {
      {{kInProgress}, {kLimitPassed}, ETIMEDOUT, "the limit has passed"},
      {{kInProgress}, {kNoMemory}, ENOMEM, "poll failed"},
      {{kInProgress}, {{1, 0, POLLHUP | POLLOUT}}, ECONNREFUSED, "POLLHUP comes first"},
      {{kInProgress}, {{1, 0, POLLOUT | POLLERR}}, 0, "POLLOUT counts as made"},
      {{kInProgress, kAlready}, {kInterrupted, kWritable}, 0, "poll is interrupted"},
      {{kInProgress, {-1, EISCONN, 0}}, {kInterrupted}, 0, "it was made in between"},
      {{kInProgress, {-1, ECONNREFUSED, 0}}, {kInterrupted}, ECONNREFUSED, "or refused"},
      {{kInterrupted, kAlready}, {kWritable}, 0, "connect is interrupted"},
      {{kInterrupted, kAlready}, {kLimitPassed}, ETIMEDOUT, "then nothing comes"},
  };
  for (const auto& [connecting, polling, error, why] : rows) {
    t.logLines.clear();
    results = connecting;
    polls = polling;
    const std::int32_t sock = veskConnect(t.req, &address);
    EXPECT_EQ(sock < 0, error != 0) << why;
    EXPECT_EQ(t.req->lastError, error) << why;
    EXPECT_EQ(t.logged("connect failed["), error ? 1 : 0) << why;
    EXPECT_TRUE(results.empty() && polls.empty()) << why;
    (void)close(sock);
  }
  EXPECT_EQ(pollLimits, std::vector<int>(10, 2000));
}

TEST_F(Sockets, transferThatMovesNothingEndsByWhatPollSays) {
  const std::tuple<bool, Outcome, std::int32_t, const char*> rows[] = {
      {true, kLimitPassed, ETIMEDOUT, "]: 110 110 "},
      {true, kNoMemory, ENOMEM, "]: 12 12 "},
      {true, {1, 0, POLLHUP | POLLIN}, ECONNRESET, "veskRecv: POLLHUP so ECONNRESET"},
      {true, {1, 0, POLLERR}, ECONNRESET, "veskRecv: POLLIN not set so ECONNRESET"},
      {false, kLimitPassed, ETIMEDOUT, "]: 110 110 "},
      {false, {1, 0, POLLHUP | POLLOUT}, ECONNRESET, "veskSend: POLLHUP so ECONNRESET"},
      {false, {1, 0, POLLERR}, ECONNRESET, "veskSend: POLLOUT not set so ECONNRESET"},
  };
  for (const auto& [receives, polling, error, line] : rows) {
    t.traceLines.clear();
    polls = {polling};
    if (!receives) results = {kWouldBlock};
    EXPECT_EQ(receives ? receive(5) : veskSend(t.req, pair[0], "x", 1), -1);
    EXPECT_EQ(t.req->lastError, error) << line;
    EXPECT_EQ(t.traced(line), 1) << t.all();
    EXPECT_EQ(t.traced(receives ? "recv failed[" : "send failed["), 1);
    EXPECT_EQ(pollLimits.back(), receives ? 4000 : 3000);
  }
}

TEST_F(Sockets, interruptedTransferGoesOnUntilThePeerCloses) {
  results = {kInterrupted, kWouldBlock};
  polls = {kInterrupted};
  EXPECT_EQ(write(pair[1], "0123456789", 10), 10);
  (void)shutdown(pair[1], SHUT_WR);
  EXPECT_EQ(receive(100), 10);
  EXPECT_EQ(t.req->lastError, 0);

  results = {kInterrupted, kWouldBlock};
  polls = {kInterrupted};
  EXPECT_EQ(veskSend(t.req, pair[0], "abc", 3), 3);
  EXPECT_EQ(t.req->lastError, 0);
}

// Each look at the clock finds it 100 ms later.
static std::int64_t tickingClock(vesk_request* /*req*/) {
  static std::int64_t ticks;
  return ticks += 100;
}

TEST_F(Sockets, guardedWaitEndsInTimeWhateverInterruptsIt) {
  t.req->ticks = tickingClock;
  t.req->recvTimeout = 500;
  polls = std::deque<Outcome>(9, kInterrupted);
  EXPECT_EQ(write(pair[1], "ab", 2), 2);
  EXPECT_EQ(receive(2), 2);  // no wait is needed, and no clock

  t.req->guards = readGuards("deadline").mask;
  EXPECT_EQ(receive(2), -1);
  EXPECT_EQ(t.req->lastError, ETIMEDOUT);
  EXPECT_FALSE(polls.empty()) << "it waited for longer than its limit";

  polls = std::deque<Outcome>(9, kInterrupted);  // without the guard all are waited for
  t.req->guards = 0;
  EXPECT_EQ(write(pair[1], "ab", 2), 2);
  results = {kWouldBlock};
  EXPECT_EQ(receive(2), 2);
}

// With pings or without, and also where no read has to wait.
TEST_F(Sockets, requestAsAWholeEndsAtItsDeadline) {
  t.req->ticks = tickingClock;
  t.req->pingServer = [](vesk_request*, veskProxy*) { return 1; };
  t.req->deadline = t.req->ticks(t.req) + 350;
  EXPECT_FALSE(isPastDeadline(t.req));
  EXPECT_EQ(receive(2, reinterpret_cast<veskProxy*>(0x1000)), -1);
  EXPECT_EQ(t.req->lastError, ETIMEDOUT);
  EXPECT_TRUE(isPastDeadline(t.req));
  EXPECT_EQ(write(pair[1], "ab", 2), 2);
  EXPECT_EQ(receive(2), -1);
}

// A server that sends byte by byte holds up no shutdown.
TEST_F(Sockets, shutdownEndsAReadThatNeedNotWait) {
  for (const bool ends : {false, true}) {
    t.req->endsAtShutdown = ends ? 1 : 0;
    EXPECT_EQ(write(pair[1], "ab", 2), 2);
    setShuttingDown(true);
    EXPECT_EQ(receive(2), ends ? -1 : 2);
    setShuttingDown(false);
  }
}

TEST_F(Sockets, lookAtAnIdleSocketTakesNothingAway) {
  EXPECT_EQ(veskPeek(t.req, pair[0]), kIdleQuiet);
  EXPECT_EQ(write(pair[1], "ab", 2), 2);
  EXPECT_EQ(veskPeek(t.req, pair[0]), kIdleBytes);
  EXPECT_EQ(receive(2), 2);
  (void)shutdown(pair[1], SHUT_WR);
  EXPECT_EQ(veskPeek(t.req, pair[0]), kIdleEnded);
}

// Only its address is looked at.
static veskProxy* const kProxy = reinterpret_cast<veskProxy*>(0x1000);

// A server that takes `pingsLeft` pings, each of which spoils lastError, and
// meanwhile sends two bytes, unless `lateBytesTo` is no socket.
static int pingsLeft, lateBytesTo, errorAtPing;
static std::int32_t countedPing(vesk_request* req, veskProxy* proxy) {
  EXPECT_EQ(proxy, kProxy);
  errorAtPing = req->lastError;
  (void)!write(lateBytesTo, "cd", 2);
  req->lastError = EPIPE;
  return pingsLeft-- > 0 ? 1 : 0;
}

TEST_F(Sockets, recvGoesOnWhileTheServerTakesPings) {
  t.req->pingServer = countedPing;
  pingsLeft = 2;
  lateBytesTo = pair[1];
  EXPECT_EQ(write(pair[1], "ab", 2), 2);
  polls = {kLimitPassed};
  EXPECT_EQ(receive(4, kProxy), 4);
  EXPECT_STREQ(buffer, "abcd");
  EXPECT_EQ(t.req->lastError, 0);
  EXPECT_EQ(t.tracedE("timeout but server reachable so recv again"), 1);

  lateBytesTo = -1;
  pingsLeft = 1;
  polls = {kLimitPassed, kLimitPassed};
  EXPECT_EQ(receive(4, kProxy), -1);
  EXPECT_EQ(t.req->lastError, ETIMEDOUT);
  EXPECT_EQ(pingsLeft, -1);

  pingsLeft = 1;
  polls = {kLimitPassed};
  setShuttingDown(true);
  EXPECT_EQ(receive(4, kProxy), -1);
  EXPECT_EQ(t.req->lastError, ETIMEDOUT);
  EXPECT_EQ(pingsLeft, 1);
  EXPECT_EQ(t.tracedE("] shutdown"), 1);
}

TEST_F(Sockets, sendToAClosedPeerFailsAndRaisesNoSignal) {
  (void)close(pair[1]);
  pair[1] = dup(0);
  EXPECT_EQ(veskSend(t.req, pair[0], "x", 1), -1);
  EXPECT_EQ(t.req->lastError, EPIPE);
}

TEST_F(Sockets, closeIsSilentWhenNotConnectedAndReportsTheRest) {
  t.req->lastError = 5;
  veskCloseSocket(t.req, socket(AF_INET, SOCK_STREAM, 0));
  EXPECT_TRUE(t.logLines.empty()) << t.all();
  veskCloseSocket(t.req, -1);
  EXPECT_EQ(t.req->lastError, 5);
  t.req->lastError = EPIPE;  // the sending side is shut already
  veskCloseSocket(t.req, -1);
  EXPECT_EQ(t.logged("socket shutdown failed[-1]: 9, 9 Bad file descriptor"), 1);
  EXPECT_EQ(t.logged("socket close fail[-1]: 9, 9 Bad file descriptor"), 2);
}

TEST_F(Sockets, whatIsReadAheadWaitsForItsReader) {
  veskReadAhead ahead;
  startReadAhead(t.req, &ahead);
  EXPECT_EQ(write(pair[1], "0123456789", 10), 10);
  EXPECT_EQ(receive(4), 4);
  EXPECT_EQ(countReadAhead(t.req), 6);
  results = {kNoMemory};  // no call is made for what is there
  EXPECT_EQ(receive(3), 3);
  EXPECT_EQ(std::string(buffer, 3), "456");
  results.clear();

  EXPECT_EQ(write(pair[0], "other", 5), 5);  // another socket neither takes nor gives
  EXPECT_EQ(veskRecv(t.req, pair[1], buffer, 5, nullptr), 5);
  EXPECT_EQ(std::string(buffer, 5), "other");
  EXPECT_EQ(countReadAhead(t.req), 3);

  EXPECT_EQ(write(pair[1], "abcd", 4), 4);  // a read may need both
  EXPECT_EQ(receive(5), 5);
  EXPECT_EQ(std::string(buffer, 5), "789ab");
  results = {kNoMemory};
  EXPECT_EQ(receive(3), -1);
  EXPECT_EQ(t.req->lastError, ENOMEM);

  EXPECT_EQ(write(pair[1], "efgh", 4), 4);
  EXPECT_EQ(receive(1), 1);
  veskCloseSocket(t.req, pair[0]);
  EXPECT_EQ(countReadAhead(t.req), 0);
  pair[0] = dup(0);
}

TEST_F(Sockets, longReadGoesStraightToItsBuffer) {
  veskReadAhead ahead;
  startReadAhead(t.req, &ahead);
  const std::string sent(3 * sizeof ahead.first / 2, 'x');
  std::string got(sent.size() + 1, '-');
  EXPECT_EQ(write(pair[1], sent.data(), sent.size()), static_cast<int>(sent.size()));
  const auto most = static_cast<std::int32_t>(sizeof ahead.first);
  EXPECT_EQ(veskRecv(t.req, pair[0], got.data(), most, nullptr), most);
  EXPECT_EQ(countReadAhead(t.req), 0);
  EXPECT_EQ(veskRecv(t.req, pair[0], got.data() + most, most / 2, nullptr), most / 2);
  EXPECT_EQ(got, sent + "-");
}

// Otherwise a signal could put off the connect that the ping needs.
TEST_F(Sockets, pingBehindASignalStartsWithoutAnError) {
  t.req->pingServer = countedPing;
  pingsLeft = 0;
  lateBytesTo = -1;
  polls = {kInterrupted, kLimitPassed};
  EXPECT_EQ(receive(4, kProxy), -1);
  EXPECT_EQ(errorAtPing, 0);
  EXPECT_EQ(t.req->lastError, ETIMEDOUT);
}
