// Words and strings of the protocol in memory: a word is 4 bytes, big-endian,
// and a string is a word n and n bytes.
//
// Ownership: texts that are read are views of the run.
// Threads: a run belongs to one at a time; no lock.
// Errors: as each function tells. Units: bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace backend {

// Most bytes that one string or block on the wire can hold.
constexpr std::size_t kMaxWireText = 0x7fffffff;

void appendWord(std::string& out, std::int32_t word);

// Appends length and bytes. Throws std::length_error above kMaxWireText.
void appendText(std::string& out, std::string_view text);

[[nodiscard]] std::int32_t wordAt(const char* bytes);

// Reads a run of words and strings that somebody else keeps alive. Each read
// throws ProtocolError when the run is too short or a length is negative.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes);

  [[nodiscard]] std::int32_t word();
  [[nodiscard]] std::string_view text();
  [[nodiscard]] std::size_t left() const;

 private:
  std::string_view rest_;
};

}  // namespace backend
