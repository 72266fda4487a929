#include "backend/run_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include "backend/address.h"
#include "backend/log.h"
#include "backend/serve_connection.h"
#include "backend/server.h"
#include "backend/session_id.h"

namespace backend {

// How long conversations may run on after the signal, and how long their
// threads may then take to notice that their sockets are gone.
constexpr std::chrono::milliseconds kGrace(2000);
constexpr std::chrono::milliseconds kLastWait(1000);

// How long to leave the listener alone when no socket or thread can be had.
constexpr std::chrono::milliseconds kBreather(50);

static volatile std::sig_atomic_t stopSignal = 0;

static void onStopSignal(int number) {
  stopSignal = number;
}

// The signals arrive only inside ppoll, where `waiting` lets them through: so
// none is missed between the test and the wait, and no other thread gets one.
static void catchSignals(sigset_t& waiting) {
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGINT, &action, nullptr);
  action.sa_handler = SIG_IGN;
  sigaction(SIGPIPE, &action, nullptr);
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGTERM);
  sigaddset(&blocked, SIGINT);
  pthread_sigmask(SIG_BLOCK, &blocked, &waiting);
  sigdelset(&waiting, SIGTERM);
  sigdelset(&waiting, SIGINT);
}

// Calls of the socket interface take every address family as this record.
static sockaddr* generic(sockaddr_in& address) {
  return reinterpret_cast<sockaddr*>(&address);
}

static std::system_error failure(const std::string& what) {
  return {errno, std::generic_category(), what};
}

// Closes the socket again and throws, with the reason of the failed call.
[[noreturn]] static void giveUp(int fd, const std::string& what) {
  const std::system_error error = failure(what);
  close(fd);
  throw error;
}

struct Listener {
  int fd;    // non-blocking
  int port;  // the real one, also when 0 was asked for
};

static Listener openListener(const std::string& host, int port) {
  const std::string name = host + ":" + std::to_string(port);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  inet_pton(AF_INET, host.c_str(), &address.sin_addr);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) throw failure("socket");
  const int on = 1;
  (void)setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(fd, generic(address), sizeof(address)) != 0) giveUp(fd, "bind " + name);
  if (listen(fd, SOMAXCONN) != 0) giveUp(fd, "listen " + name);
  socklen_t length = sizeof(address);
  if (getsockname(fd, generic(address), &length) != 0) giveUp(fd, "getsockname");
  return {fd, ntohs(address.sin_port)};
}

// Without a thread the connection ends, and the server goes on after a while: the
// threads that are there may have ended by then.
static void startThread(const std::shared_ptr<Server>& server, int fd,
                        const std::string& peer) {
  try {
    std::thread([server, fd, peer] { serveConnection(*server, fd, peer); }).detach();
  } catch (const std::exception& error) {
    logLine(peer, std::string("no thread for the connection: ") + error.what());
    server->connections.remove(fd);
    std::this_thread::sleep_for(kBreather);
  }
}

// The listener doesn't block: a client that is gone again between ppoll and
// accept must not keep the loop from its signal.
static void acceptOne(const std::shared_ptr<Server>& server, int listener) {
  sockaddr_in address{};
  socklen_t length = sizeof(address);
  const int fd = accept4(listener, generic(address), &length, SOCK_CLOEXEC);
  if (fd < 0) {
    if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return;
    logLine({}, std::string("accept: ") + strerror(errno));
    std::this_thread::sleep_for(kBreather);
    return;
  }
  const int on = 1;
  (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  const std::string peer = nameOf(address);
  if (!server->connections.add(fd)) {
    logLine(peer, "too many connections, closed");
    close(fd);
    return;
  }
  startThread(server, fd, peer);
}

static void acceptUntilSignal(const std::shared_ptr<Server>& server, int listener,
                              const sigset_t& waiting) {
  while (stopSignal == 0) {
    pollfd wanted{listener, POLLIN, 0};
    const int ready = ppoll(&wanted, 1, nullptr, &waiting);
    if (ready > 0) acceptOne(server, listener);
  }
}

// Ends the connections: first those that do nothing, then the rest.
static bool windDown(Server& server) {
  server.connections.stop();
  if (server.connections.waitUntilEmpty(kGrace)) return true;
  logLine({}, "conversations still run, breaking them off");
  server.connections.breakOff();
  return server.connections.waitUntilEmpty(kLastWait);
}

int runServer(Options options) {
  sigset_t waiting;
  catchSignals(waiting);
  const Listener listener = openListener(options.listenHost, options.listenPort);
  if (options.repId.empty()) options.repId = repIdOfPort(listener.port);
  const std::string address = options.listenHost + ":" + std::to_string(listener.port);
  const auto server = std::make_shared<Server>(std::move(options));
  (void)server->cluster.current();  // so that a bad file is told at once
  printf("listening on %s\n", address.c_str());
  fflush(stdout);
  logLine({}, "listening on " + address + " as " + server->options.repId);

  acceptUntilSignal(server, listener.fd, waiting);
  close(listener.fd);
  logLine({}, std::string("stopping after ") + strsignal(stopSignal));
  // A thread that still runs may use what main would destroy.
  if (!windDown(*server)) std::_Exit(EXIT_SUCCESS);
  return EXIT_SUCCESS;
}

}  // namespace backend
