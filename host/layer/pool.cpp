#include "layer/pool.h"

#include <cstddef>
#include <cstdlib>

namespace host {

// Stands right before the bytes that the user gets.
struct alignas(std::max_align_t) PoolBlock {
  RequestPool* pool;  // null: the block belongs to no request
  PoolBlock* previous;
  PoolBlock* next;
};

static PoolBlock* newBlock(std::int64_t size) {
  if (size <= 0 || size > INT64_MAX - static_cast<std::int64_t>(sizeof(PoolBlock))) {
    return nullptr;
  }
  void* bytes = std::malloc(sizeof(PoolBlock) + static_cast<std::size_t>(size));
  if (!bytes) return nullptr;
  auto* block = static_cast<PoolBlock*>(bytes);
  *block = PoolBlock{nullptr, nullptr, nullptr};
  return block;
}

RequestPool::~RequestPool() {
  while (blocks_) {
    PoolBlock* next = blocks_->next;
    std::free(blocks_);
    blocks_ = next;
  }
}

void* RequestPool::allocate(std::int64_t size) {
  PoolBlock* block = newBlock(size);
  if (!block) return nullptr;
  block->pool = this;
  block->next = blocks_;
  if (blocks_) blocks_->previous = block;
  blocks_ = block;
  return block + 1;
}

void* allocateUnpooled(std::int64_t size) {
  PoolBlock* block = newBlock(size);
  return block ? block + 1 : nullptr;
}

// A block without a predecessor is the first of its pool, or of none.
void releasePoolBlock(void* bytes) {
  if (!bytes) return;
  PoolBlock* block = static_cast<PoolBlock*>(bytes) - 1;
  if (block->previous) {
    block->previous->next = block->next;
  } else if (block->pool) {
    block->pool->blocks_ = block->next;
  }
  if (block->next) block->next->previous = block->previous;
  std::free(block);
}

}  // namespace host
