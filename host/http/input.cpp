#include "http/input.h"

#include <algorithm>
#include <cstring>
#include <new>

namespace host {

// Most heads fit.
constexpr std::size_t kFirstSize = 4096;

std::span<char> Input::makeRoom(std::size_t most) {
  const std::string_view bytes = waiting();
  if (bytes.empty()) begin_ = end_ = 0;
  if (end_ < size_) return {buffer_.get() + end_, size_ - end_};
  if (bytes.size() >= most) return {};
  if (begin_ > 0 && bytes.size() <= size_ / 2) {
    std::memmove(buffer_.get(), bytes.data(), bytes.size());
  } else {
    const std::size_t size = std::max(kFirstSize, size_ * 2);
    std::unique_ptr<char[]> larger(new (std::nothrow) char[size]);
    if (!larger) return {};
    std::copy(bytes.begin(), bytes.end(), larger.get());
    buffer_ = std::move(larger);
    size_ = size;
  }
  begin_ = 0;
  end_ = bytes.size();
  return {buffer_.get() + end_, size_ - end_};
}

void Input::release() {
  if (!waiting().empty()) return;
  buffer_.reset();
  size_ = begin_ = end_ = 0;
}

}  // namespace host
