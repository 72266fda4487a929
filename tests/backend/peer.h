// The web server's side of the wire for tests: a request block from plain
// texts, and one end of a socket pair whose other end a server serves.
#pragma once

#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "backend/server.h"

namespace backend_test {

using Texts = std::vector<std::pair<std::string, std::string>>;

struct BlockParts {
  std::string uri = "/demo/";
  std::string query = {};
  Texts headers = {};
  std::string method = "GET";
  Texts attributes = {};
  std::string sessionId = {};  // empty: no such item
};

std::string word(std::int32_t number);
std::string text(std::string_view bytes);  // length and bytes
std::string blockOf(const BlockParts& parts);
std::string frameOf(const BlockParts& parts);  // the block in PROXY_SERVICE_40

struct Reply {
  std::int32_t status = 0;
  std::string head;  // all texts but the body: reason, headers, attributes
  std::string body;
  std::vector<std::int32_t> commands;
  bool finished = false;  // else the connection ended
};

// A request body and how it is given out.
struct Source {
  std::string body = {};
  std::size_t piece = 40960;  // most bytes in a frame
  std::int32_t end = 0;       // or -1 for a browser that broke off
};

// One end of a connection; owns the socket. A server that should have answered
// or closed fails the test and doesn't hang it.
class Wire {
 public:
  explicit Wire(int fd);
  Wire(const Wire&) = delete;
  ~Wire();

  void send(std::string_view bytes) const;

  // Ends this side, SHUT_WR, after which the server can still be read, or both.
  void end(int how) const;

  // Reads that many bytes; fewer when the server has closed.
  [[nodiscard]] std::string receive(std::size_t size = 1U << 16U) const;

  // Reads a reply and gives out `source` in answer to PROXY_GET_DATA.
  [[nodiscard]] Reply reply(Source source = {}) const;

 private:
  int fd_;
};

// Options as they are when little more than --listen was given.
backend::Options plainOptions();
std::pair<int, int> socketPair();

// A wire to a server of its own, which ends with it.
class Peer : public Wire {
 public:
  explicit Peer(backend::Options options = plainOptions(),
                std::pair<int, int> ends = socketPair());
  ~Peer();

  backend::Server server;

 private:
  std::thread thread_;
};

}  // namespace backend_test
