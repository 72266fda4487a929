// The sessions of this server: a counter each, in memory.
//
// It holds kMaxSessions; beyond that the one not used for longest is forgotten.
//
// Ownership: the store's; counts are handed out as values.
// Threads: any; each function takes the store's own lock.
// Errors: only those of an allocation.
#pragma once

#include <cstdint>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

namespace backend {

constexpr std::size_t kMaxSessions = 10000;

class SessionStore {
 public:
  // Counts one use of the session and returns the count; 1 for a new one.
  std::int64_t use(const std::string& id);

  // The count without a use; nothing for a session not held here.
  [[nodiscard]] std::optional<std::int64_t> peek(const std::string& id);

  void forget(const std::string& id);

 private:
  struct Entry {
    std::string id;
    std::int64_t count;
  };

  std::mutex lock_;
  // Guarded by lock_.
  std::list<Entry> byUse_;  // last used first
  std::unordered_map<std::string, std::list<Entry>::iterator> byId_;
};

}  // namespace backend
