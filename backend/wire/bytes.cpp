#include "backend/wire/bytes.h"

#include <stdexcept>

#include "backend/wire/protocol.h"

namespace backend {

constexpr std::size_t kWordSize = 4;

void appendWord(std::string& out, std::int32_t word) {
  const auto bits = static_cast<std::uint32_t>(word);
  for (int shift = 24; shift >= 0; shift -= 8) {
    out.push_back(static_cast<char>((bits >> shift) & 0xffU));
  }
}

// Judged before anything is appended: a length without its bytes would spoil all
// that has gathered.
void appendText(std::string& out, std::string_view text) {
  if (text.size() > kMaxWireText) throw std::length_error("text too long for the wire");
  appendWord(out, static_cast<std::int32_t>(text.size()));
  out.append(text);
}

std::int32_t wordAt(const char* bytes) {
  std::uint32_t bits = 0;
  for (std::size_t i = 0; i < kWordSize; ++i) {
    bits = (bits << 8U) | static_cast<unsigned char>(bytes[i]);
  }
  return static_cast<std::int32_t>(bits);
}

ByteReader::ByteReader(std::string_view bytes) : rest_(bytes) {}

std::int32_t ByteReader::word() {
  if (rest_.size() < kWordSize) throw ProtocolError("request block ends inside a word");
  const std::int32_t word = wordAt(rest_.data());
  rest_.remove_prefix(kWordSize);
  return word;
}

// The length is the peer's word, so it is judged before a view is made of it.
std::string_view ByteReader::text() {
  const std::int32_t length = word();
  if (length < 0) {
    throw ProtocolError("negative length " + std::to_string(length) +
                        " in request block");
  }
  const auto size = static_cast<std::size_t>(length);
  if (size > rest_.size()) {
    throw ProtocolError("length " + std::to_string(length) +
                        " is beyond the end of the request block");
  }
  const std::string_view text = rest_.substr(0, size);
  rest_.remove_prefix(size);
  return text;
}

std::size_t ByteReader::left() const {
  return rest_.size();
}

}  // namespace backend
