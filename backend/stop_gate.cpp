#include "backend/stop_gate.h"

namespace backend {

bool StopGate::pause(std::chrono::milliseconds time) {
  std::unique_lock guard(lock_);
  return !changed_.wait_for(guard, time, [this] { return closed_; });
}

void StopGate::close() {
  const std::lock_guard guard(lock_);
  closed_ = true;
  changed_.notify_all();
}

}  // namespace backend
