// One client: its connection, and the bytes that have come on it.
//
// A client belongs to one thread at a time: to the loop while it is waited for
// (waiting_room.h), to a worker while its requests run (workers.h).
//
// Ownership: a unique_ptr goes from hand to hand; the connection ends with it.
// Threads: one at a time. Errors: none.
#pragma once

#include <atomic>
#include <boost/asio/ip/tcp.hpp>
#include <cstdint>
#include <memory>
#include <string>

#include "http/channel.h"
#include "http/head_scan.h"
#include "http/input.h"
#include "http/limits.h"

namespace host {

// The side of a connection that is the server's.
struct LocalSide {
  int port;
  bool tls;
};

// One of the clients that are counted.
class Counted {
 public:
  explicit Counted(std::atomic<int>* count) : count_(count) {
    ++*count_;
  }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;
  ~Counted() {
    --*count_;
  }

 private:
  std::atomic<int>* count_;
};

struct Client {
  explicit Client(std::atomic<int>* count) : counted(count) {}

  Counted counted;
  std::unique_ptr<Channel> channel;
  Input input;
  HeadScan scan{};  // of the head that comes
  boost::asio::ip::tcp::endpoint peer{};
  std::string address{};  // of the peer, as text
  LocalSide local{};
  bool served = false;  // has had an answer
};

// Receives what has come, so that at most `most` bytes wait: the count; 0 at the
// end of the stream; -1 with errno, ENOBUFS when so many wait already.
[[nodiscard]] ssize_t receiveInput(Client* client, std::size_t most, Wait wait);

// Looks for the end of the next head in what has come, behind empty lines; the scan
// goes on where it was.
[[nodiscard]] HeadState nextHead(Client* client, const Limits& limits);

}  // namespace host
