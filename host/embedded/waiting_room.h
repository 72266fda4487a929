// The clients that no thread is busy with: those whose next head hasn't come, and
// those that are on their way out. They cost memory and no thread.
//
//   enter --> idle --first byte--> head --whole--> `ready`
//               |                    |
//        KeepAliveTimeout       HeadTimeout: 408      leave --> parting --> closed
//
// Ownership: the room owns the clients that are in it; the loop outlives it.
// Threads: that of the loop alone. No lock.
// Errors: enter and part throw std::bad_alloc or boost::system::system_error; the
// client is then gone.
#pragma once

#include <boost/asio/io_context.hpp>
#include <functional>
#include <list>
#include <memory>

#include "embedded/limit_log.h"
#include "http/client.h"
#include "http/limits.h"

namespace host {

class WaitingRoom {
 public:
  struct Settings {
    const Limits* limits;
    LimitLog* log;
    std::function<void(std::unique_ptr<Client>)> ready;  // a head is there to be judged
  };

  WaitingRoom(boost::asio::io_context* loop, Settings settings)
      : loop_(loop), settings_(std::move(settings)) {}
  WaitingRoom(const WaitingRoom&) = delete;
  WaitingRoom& operator=(const WaitingRoom&) = delete;
  ~WaitingRoom();

  // Waits for a client's next head.
  void enter(std::unique_ptr<Client> client);

  // Ends the stream to a client, reads what it still sends, and drops it.
  void part(std::unique_ptr<Client> client);

  // Closes the client that has been idle longest: false when none is.
  bool closeIdlest();

  // Closes all whose head hasn't come; those that part may finish.
  void closeWaiting();

  // True when nobody is in the room.
  [[nodiscard]] bool empty() const {
    return waiters_.empty() && idle_.empty();
  }

 private:
  struct Waiter;
  using Place = std::shared_ptr<Waiter>;
  using List = std::list<Place>;

  Place admit(std::unique_ptr<Client> client, List* list);
  std::unique_ptr<Client> dismiss(const Place& waiter);
  void handle(const Place& waiter, void (WaitingRoom::*step)(const Place&));
  void begin(const Place& waiter, std::int64_t seconds);
  void watch(const Place& waiter);
  void limit(const Place& waiter, std::int64_t seconds);
  void onReadable(const Place& waiter);
  void onBytes(const Place& waiter);
  void onTimeout(const Place& waiter);
  void readAway(const Place& waiter);
  void drop(const Place& waiter);
  void closeOrServe(const Place& waiter);
  void awaitParting(const Place& waiter);
  void beginHead(const Place& waiter);

  boost::asio::io_context* loop_;
  Settings settings_;
  List idle_;     // no byte of a head has come; the longest first
  List waiters_;  // all others
};

}  // namespace host
