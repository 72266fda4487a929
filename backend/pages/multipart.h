// Finds the first file of a multipart/form-data body that comes in pieces.
//
// Memory is bounded: only a boundary's length, or one part's headers, is held.
//
// Ownership: the sink is called with views of the reader's own bytes, which
// last as long as the call.
// Threads: one at a time.
// Errors: `malformed`, after which feed does nothing more; what the sink
// throws.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace backend {

// The boundary of a Content-Type value; nothing when the value isn't
// multipart/form-data or has no boundary of 1 to 70 characters.
[[nodiscard]] std::optional<std::string> multipartBoundary(std::string_view contentType);

class MultipartReader {
 public:
  enum class State { preamble, headers, part, done, malformed };

  using Sink = std::function<void(std::string_view)>;

  // `sink` gets the bytes of the first part that has a file name, piece by
  // piece.
  MultipartReader(std::string_view boundary, Sink sink);

  void feed(std::string_view bytes);

  [[nodiscard]] State state() const;

  // The file name of the part that went to the sink; nothing before it came.
  [[nodiscard]] const std::optional<std::string>& fileName() const;

 private:
  [[nodiscard]] bool step();
  [[nodiscard]] bool stepContent();
  [[nodiscard]] bool stepHeaders();
  void emit(std::size_t size);

  std::string delimiter_;  // CR LF, two dashes, boundary
  Sink sink_;
  std::string pending_;  // bytes not yet judged
  State state_ = State::preamble;
  bool wanted_ = false;  // the part at hand goes to the sink
  std::optional<std::string> fileName_;
};

}  // namespace backend
