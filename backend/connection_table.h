// All open connections, and how they end when the server goes down.
//
//             add                begin
//   (none) ---------> idle ------------------> busy
//                      ^  <----------------------|
//                      |         end
//                      +--> remove (also from busy)
//
// Ownership: the table closes each socket, in `remove`, so that a number can't
// be shut down here after it has been given to another connection.
// Threads: any; each function takes the table's own lock, which is held while
// sockets are shut down, and never while anything waits.
// Errors: false, as each function tells.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <unordered_map>

namespace backend {

class ConnectionTable {
 public:
  // False when there are too many, or the server is going down: the caller
  // closes the socket.
  [[nodiscard]] bool add(int fd);

  // A conversation begins. False when the server is going down.
  [[nodiscard]] bool begin(int fd);

  // A conversation has ended. False when the connection must be closed now.
  [[nodiscard]] bool end(int fd);

  void remove(int fd);

  // Lets a conversation wait that long. False when breakOff was called, before
  // or meanwhile.
  [[nodiscard]] bool pause(std::chrono::milliseconds time);

  // Lets no conversation begin any more and shuts down what is idle.
  void stop();

  // Shuts down what is left, and ends every pause, now and in future.
  void breakOff();

  // Waits until all are gone; false when the time has passed before that.
  [[nodiscard]] bool waitUntilEmpty(std::chrono::milliseconds time);

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  // Guarded by lock_.
  std::unordered_map<int, bool> busy_;  // by socket; false: idle
  bool stopping_ = false;
  bool breakingOff_ = false;
};

}  // namespace backend
