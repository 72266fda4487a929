// Lets a page wait, and ends all waiting when the server goes down.
//
// Threads: any.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace backend {

class StopGate {
 public:
  // Waits for that long. False when the gate was closed meanwhile or before.
  [[nodiscard]] bool pause(std::chrono::milliseconds time);

  // Ends every pause, now and in future.
  void close();

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  bool closed_ = false;  // guarded by lock_
};

}  // namespace backend
