// Servers on real sockets, played by one thread: each answers what it is asked by what
// the test has laid down for its port, and can break off or say a wrong word at any
// place.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Bytes of the protocol, and where its words stand in them.
struct Answer {
  std::string bytes;
  std::vector<std::size_t> words;

  Answer& word(std::int32_t number);
  Answer& text(const std::string& text);
};

// What goes wrong with the answers, counted over all of them together.
struct WireFault {
  std::int64_t cutAfter = -1;     // bytes; then the connection ends
  std::int64_t replaceWord = -1;  // the word of that number
  std::int32_t replacement = 0;
};

class PlayingServers {
 public:
  explicit PlayingServers(int count);
  ~PlayingServers();
  PlayingServers(const PlayingServers&) = delete;
  PlayingServers& operator=(const PlayingServers&) = delete;

  [[nodiscard]] std::string name(std::size_t server) const;

  // What a server answers to "server-props" and the like, and to a "service".
  void answer(std::size_t server, const std::string& question, Answer answer);
  // From here on; the counts begin at 0.
  void arm(const WireFault& fault);
  [[nodiscard]] std::int64_t bytesSent() const {
    return bytes_;
  }
  [[nodiscard]] std::int64_t wordsSent() const {
    return words_;
  }

 private:
  struct Connection {
    int sock;
    std::size_t server;
    std::string received;
  };
  void run();
  void accept(std::size_t server);
  bool serve(Connection* connection);
  bool sendAnswer(int sock, Answer answer);

  std::vector<int> listeners_;
  std::vector<int> ports_;
  std::vector<Connection> connections_;
  std::mutex lock_;  // guards the answers and the fault
  std::vector<std::map<std::string, Answer>> answers_;
  WireFault fault_;
  std::atomic<std::int64_t> bytes_ = 0, words_ = 0;
  std::atomic<bool> stopping_ = false;
  std::thread thread_;
};
