#include "backend/session_store.h"

namespace backend {

// The list is in the order of use and the map points into it, so that using one
// and forgetting the oldest take the same time however many there are. A list's
// nodes stay where they are when they are moved to the front.
std::int64_t SessionStore::use(const std::string& id) {
  const std::lock_guard guard(lock_);
  const auto found = byId_.find(id);
  if (found != byId_.end()) {
    byUse_.splice(byUse_.begin(), byUse_, found->second);
    return ++byUse_.front().count;
  }
  byUse_.push_front({id, 1});
  byId_[id] = byUse_.begin();
  if (byUse_.size() > kMaxSessions) {
    byId_.erase(byUse_.back().id);
    byUse_.pop_back();
  }
  return 1;
}

std::optional<std::int64_t> SessionStore::peek(const std::string& id) {
  const std::lock_guard guard(lock_);
  const auto found = byId_.find(id);
  if (found == byId_.end()) return std::nullopt;
  return found->second->count;
}

void SessionStore::forget(const std::string& id) {
  const std::lock_guard guard(lock_);
  const auto found = byId_.find(id);
  if (found == byId_.end()) return;
  byUse_.erase(found->second);
  byId_.erase(found);
}

}  // namespace backend
