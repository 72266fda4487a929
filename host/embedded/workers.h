// The threads that run requests, and the clients that wait for one of them.
//
// Ownership: a client belongs to the queue from add until a thread takes it.
// Threads: start and stop from one thread, all else from any. One lock, held for
// no call of the system but to wait for work.
// Errors: start throws std::system_error when no thread can be made.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "http/client.h"

namespace host {

// What becomes of a client that a thread has served.
enum class Ending {
  close,  // it is dropped
  wait,   // its next head isn't there
  again,  // its next head is there, but others have waited longer
  part,   // it may still be sending what nobody reads
};

class Workers {
 public:
  // Serves a client for as long as it has a thread of its own.
  using Serve = std::function<Ending(Client*)>;
  // Takes a client that waits or parts. May throw std::bad_alloc.
  using HandBack = std::function<void(std::unique_ptr<Client>, Ending)>;

  Workers(Serve serve, HandBack handBack);
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;
  ~Workers();

  void start(std::size_t count);

  // Hands over a client whose next head is there. Throws std::bad_alloc.
  void add(std::unique_ptr<Client> client);

  // True when a client waits for a thread.
  [[nodiscard]] bool busy() const {
    return waiting_ > 0;
  }

  // True when a thread has nothing to do and no client waits for one.
  [[nodiscard]] bool plenty() const {
    return waiting_ == 0 && idle_ > 0;
  }

  // Threads end when the clients that wait have been served.
  void finish();

  // How many threads still run.
  [[nodiscard]] int running() const {
    return running_;
  }

  // Ends the stream of every client that is with a thread, both ways: how many.
  int cut();

 private:
  struct Place;  // of one thread
  void run(Place* place);
  [[nodiscard]] std::unique_ptr<Client> take();
  void serveOne(Place* place, std::unique_ptr<Client> client);

  Serve serve_;
  HandBack handBack_;
  std::vector<std::unique_ptr<Place>> places_;
  std::mutex lock_;
  std::condition_variable work_;
  std::deque<std::unique_ptr<Client>> queue_;  // guarded by lock_
  bool finishing_ = false;                     // guarded by lock_
  std::atomic<int> waiting_{0};                // in the queue
  std::atomic<int> idle_{0};
  std::atomic<int> running_{0};
};

}  // namespace host
