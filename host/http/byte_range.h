// The part of a file that a client asks for.
//
// Pure functions: any thread, no lock. Units: bytes.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace host {

enum class RangeKind {
  whole,    // nothing else is asked for, or in a way that may be passed over
  part,     // `count` bytes from `first` on
  outside,  // nothing of what is asked for is there
};

struct ByteRange {
  RangeKind kind;
  std::int64_t first;
  std::int64_t count;
};

// Reads the value of a Range header. Several parts at once are passed over: the
// client gets the whole, as it may.
[[nodiscard]] ByteRange readRange(std::string_view value, std::int64_t size);

// The value of the header Content-Range.
[[nodiscard]] std::string rangeText(const ByteRange& range, std::int64_t size);

}  // namespace host
