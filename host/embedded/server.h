// The listening side of the embedded host, on CivetWeb.
//
// Ownership: the caller's; the state that it is given must outlive it.
// Threads: start and stop from one thread; requests run on CivetWeb's own.
// Errors: a text; empty for success.
#pragma once

#include <string>
#include <vector>

#include "embedded/http_exchange.h"

namespace host {

class Server {
 public:
  explicit Server(ServerState* state) : state_(state) {}
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;
  ~Server();

  // Opens the listeners and serves from then on.
  [[nodiscard]] std::string start();

  // "http://ADDR:PORT" of each listener, with the real port.
  [[nodiscard]] std::vector<std::string> addresses() const;

  // Closes the listeners; connections close after the request they are in.
  void stopListening();

  // Requests in progress.
  [[nodiscard]] int running() const;

  // Ends all connections and threads. Blocks until the last one has ended.
  void stop();

 private:
  ServerState* state_;
  mg_context* context_ = nullptr;
};

}  // namespace host
