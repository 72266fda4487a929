// Takes the connections of new clients from one listener.
//
// Ownership: the acceptor owns the listener's socket; the loop outlives it.
// Threads: that of the loop. No lock. Errors: lines in the log; when there is room
// for no further client, it tries again after a pause.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <memory>

#include "embedded/listener.h"

namespace host {

class Acceptor {
 public:
  using Endpoint = boost::asio::ip::tcp::endpoint;
  struct Settings {
    std::function<bool()> full;      // there is no room for another client
    std::function<bool()> makeRoom;  // false: now there is none either
    std::function<void(const char* reason)> failed;
    // Takes the socket of a new client.
    std::function<void(int socket, const Endpoint& peer, LocalSide local)> take;
  };

  Acceptor(boost::asio::io_context* loop, const Listener& listener, Settings settings);

  void start() {
    watch();
  }

  // Closes the listener.
  void stop();

 private:
  void watch();
  void acceptAll();
  void pause();
  [[nodiscard]] bool someoneWaits();
  [[nodiscard]] bool acceptOne();

  boost::asio::posix::stream_descriptor socket_;
  boost::asio::steady_timer timer_;
  LocalSide local_;
  bool passed_;
  Settings settings_;
};

}  // namespace host
