#include "layer/pool.h"

#include <cstdlib>

namespace host {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUsesRoom = false;
#elif defined(__has_feature)
constexpr bool kUsesRoom = !__has_feature(address_sanitizer);
#else
constexpr bool kUsesRoom = true;
#endif

// Stands right before the bytes that the user gets.
struct alignas(std::max_align_t) BlockHead {
  RequestPool* pool;      // null: the block belongs to no request
  std::int64_t roomSize;  // in the room of its pool, this head included; 0: of the heap
};

struct HeapBlock {
  HeapBlock* previous;
  HeapBlock* next;
  BlockHead head;
};
static_assert(offsetof(HeapBlock, head) + sizeof(BlockHead) == sizeof(HeapBlock));

static HeapBlock* newBlock(std::int64_t size) {
  if (size <= 0 || size > INT64_MAX - static_cast<std::int64_t>(sizeof(HeapBlock))) {
    return nullptr;
  }
  void* bytes = std::malloc(sizeof(HeapBlock) + static_cast<std::size_t>(size));
  if (!bytes) return nullptr;
  auto* block = static_cast<HeapBlock*>(bytes);
  *block = HeapBlock{nullptr, nullptr, {nullptr, 0}};
  return block;
}

RequestPool::~RequestPool() {
  while (blocks_) {
    HeapBlock* next = blocks_->next;
    std::free(blocks_);
    blocks_ = next;
  }
}

void* RequestPool::allocateInRoom(std::int64_t size) {
  constexpr std::int64_t kHead = sizeof(BlockHead);
  constexpr std::int64_t kMost = sizeof(room_) - kHead;
  if (!kUsesRoom || size <= 0 || size > kMost) return nullptr;
  const std::int64_t rounded = (size + kHead - 1) / kHead * kHead;  // keeps the alignment
  const std::int64_t needed = kHead + rounded;
  if (needed > static_cast<std::int64_t>(sizeof(room_)) - used_) return nullptr;
  void* place = room_ + used_;
  auto* head = static_cast<BlockHead*>(place);
  *head = BlockHead{this, needed};
  used_ += needed;
  return head + 1;
}

void* RequestPool::allocate(std::int64_t size) {
  void* small = allocateInRoom(size);
  if (small) return small;
  HeapBlock* block = newBlock(size);
  if (!block) return nullptr;
  block->head.pool = this;
  block->next = blocks_;
  if (blocks_) blocks_->previous = block;
  blocks_ = block;
  return block + 1;
}

void* allocateUnpooled(std::int64_t size) {
  HeapBlock* block = newBlock(size);
  return block ? block + 1 : nullptr;
}

// A block without a predecessor is the first of its pool, or of none.
void RequestPool::unlink(HeapBlock* block) {
  if (block->previous) {
    block->previous->next = block->next;
  } else {
    blocks_ = block->next;
  }
  if (block->next) block->next->previous = block->previous;
}

void releasePoolBlock(void* bytes) {
  if (!bytes) return;
  BlockHead* head = static_cast<BlockHead*>(bytes) - 1;
  RequestPool* pool = head->pool;
  if (head->roomSize != 0) {
    const bool last = static_cast<char*>(static_cast<void*>(head)) + head->roomSize ==
                      pool->room_ + pool->used_;
    if (last) pool->used_ -= head->roomSize;
    return;
  }
  HeapBlock* block = static_cast<HeapBlock*>(bytes) - 1;
  if (pool) pool->unlink(block);
  std::free(block);
}

}  // namespace host
