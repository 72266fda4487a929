// The bytes that have come from a client and that nobody has read yet.
//
// What stands in the buffer stays where it is until makeRoom is called.
//
// Ownership: the buffer owns its memory, and holds none while it is empty and
// released. Threads: one at a time. Errors: as told. Units: bytes.
#pragma once

#include <cstddef>
#include <memory>
#include <span>
#include <string_view>

namespace host {

class Input {
 public:
  [[nodiscard]] std::string_view waiting() const {
    return {buffer_.get() + begin_, end_ - begin_};
  }

  // Room behind the waiting bytes, which may move: it grows by doubling until
  // `most` bytes can wait. Empty when they do, or when memory is short.
  [[nodiscard]] std::span<char> makeRoom(std::size_t most);

  // So many bytes of the room have been filled.
  void add(std::size_t count) {
    end_ += count;
  }

  // The first bytes have been read.
  void take(std::size_t count) {
    begin_ += count;
  }

  // Gives the memory back if nothing waits.
  void release();

 private:
  std::unique_ptr<char[]> buffer_;
  std::size_t size_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace host
