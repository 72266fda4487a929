// The embedded web server: listeners, the loop in which clients wait, and the
// threads that serve them.
//
// The thread that calls run turns the loop: it takes connections, reads heads that
// come late, minds time limits and signals. A client whose head is there goes to a
// worker, which keeps it while requests follow on each other's heels and nobody else
// waits for a thread.
//
// Ownership: the caller's; the state outlives it.
// Threads: one constructs and runs it; requests run on threads of its own.
// Errors: a text that names the place in the configuration; empty for success.
#pragma once

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "embedded/http_exchange.h"

namespace host {

class Server {
 public:
  explicit Server(ServerState* state);
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  // Takes the addresses of the Listen lines. No client is served before run.
  [[nodiscard]] std::string bind();

  // "http://ADDR:PORT" of each listener, with the real port.
  [[nodiscard]] std::vector<std::string> addresses() const;

  // Lets clients connect and makes the threads.
  [[nodiscard]] std::string start();

  // Serves until SIGTERM or SIGINT, then until running requests have ended or the
  // time for that is over: the number of requests that haven't ended. SIGHUP and
  // SIGUSR1 call `reopen` and read the certificates again. REQUIRES: these signals are
  // blocked.
  [[nodiscard]] int run(void (*reopen)());

 private:
  class Loop;
  ServerState* state_;
  std::unique_ptr<Loop> loop_;
};

}  // namespace host
