// Memory of one request, taken back all at once when the request ends.
//
// Small blocks come from a room within the pool, one behind the other, without a call
// of the heap; the last one that was given out can be taken back. What doesn't fit there
// stands in a list, so that a block that its user forgot is freed by the destructor, and
// one that was given back is freed at once: a page of any length doesn't grow the pool.
// A build that watches memory has no room, so that each block's borders are watched.
//
// Ownership: the pool owns its blocks; a block may outlive no pool.
// Threads: a pool and its blocks belong to one thread at a time. No lock.
// Errors: null. Sizes are bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace host {

struct HeapBlock;

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
  [[nodiscard]] void* allocateInRoom(std::int64_t size);
  void unlink(HeapBlock* block);

  HeapBlock* blocks_ = nullptr;
  std::int64_t used_ = 0;  // of the room
  alignas(std::max_align_t) char room_[8 << 10];
};

// The same for what belongs to no request; it lasts until it is given back.
[[nodiscard]] void* allocateUnpooled(std::int64_t size);

// Gives back a block of either kind; null does nothing.
void releasePoolBlock(void* block);

}  // namespace host
