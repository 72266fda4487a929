// Memory of one request, taken back all at once when the request ends.
//
// Every block stands in a list of its pool, so that one that its user forgot
// is freed by the destructor, and one that was given back is freed at once: a
// page of any length doesn't grow the pool.
//
// Ownership: the pool owns its blocks; a block may outlive no pool.
// Threads: a pool and its blocks belong to one thread at a time. No lock.
// Errors: null. Sizes are bytes.
#pragma once

#include <cstdint>

namespace host {

struct PoolBlock;

class RequestPool {
 public:
  RequestPool() = default;
  RequestPool(const RequestPool&) = delete;
  RequestPool& operator=(const RequestPool&) = delete;
  ~RequestPool();

  // A block aligned for any type; null for a size of 0 or below, or when the
  // heap is full.
  [[nodiscard]] void* allocate(std::int64_t size);

 private:
  friend void releasePoolBlock(void* block);
  PoolBlock* blocks_ = nullptr;
};

// A block that belongs to no request and lasts until it is released; null as
// from RequestPool::allocate.
[[nodiscard]] void* allocateUnpooled(std::int64_t size);

// Gives back what either of the above gave. Null does nothing.
void releasePoolBlock(void* block);

}  // namespace host
