#include "backend/connection_table.h"

#include <sys/socket.h>
#include <unistd.h>

namespace backend {

// Each connection is a thread; beyond this something is wrong with the peers.
constexpr std::size_t kMaxConnections = 4096;

bool ConnectionTable::add(int fd) {
  const std::lock_guard guard(lock_);
  if (stopping_ || busy_.size() >= kMaxConnections) return false;
  busy_[fd] = false;
  return true;
}

bool ConnectionTable::begin(int fd) {
  const std::lock_guard guard(lock_);
  if (stopping_) return false;
  busy_[fd] = true;
  return true;
}

bool ConnectionTable::end(int fd) {
  const std::lock_guard guard(lock_);
  busy_[fd] = false;
  return !stopping_;
}

void ConnectionTable::remove(int fd) {
  const std::lock_guard guard(lock_);
  busy_.erase(fd);
  close(fd);
  changed_.notify_all();
}

bool ConnectionTable::pause(std::chrono::milliseconds time) {
  std::unique_lock guard(lock_);
  return !changed_.wait_for(guard, time, [this] { return breakingOff_; });
}

// A connection that is idle now can't become busy unseen: `begin` takes the
// same lock, and finds that the server is going down.
void ConnectionTable::stop() {
  const std::lock_guard guard(lock_);
  stopping_ = true;
  for (const auto& [fd, busy] : busy_) {
    if (!busy) shutdown(fd, SHUT_RDWR);
  }
}

void ConnectionTable::breakOff() {
  const std::lock_guard guard(lock_);
  breakingOff_ = true;
  for (const auto& [fd, busy] : busy_) shutdown(fd, SHUT_RDWR);
  changed_.notify_all();
}

bool ConnectionTable::waitUntilEmpty(std::chrono::milliseconds time) {
  std::unique_lock guard(lock_);
  return changed_.wait_for(guard, time, [this] { return busy_.empty(); });
}

}  // namespace backend
