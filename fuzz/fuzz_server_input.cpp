// What the reference server reads: a request block, and the body of an upload.
#include <stdexcept>
#include <string_view>

#include "backend/pages/multipart.h"
#include "backend/wire/protocol.h"
#include "backend/wire/request.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text.push_back(static_cast<char>(data[i]));
  try {
    (void)backend::parseServiceRequest(text);
  } catch (const std::runtime_error&) {
    // A block that is refused is refused this way.
  }
  backend::MultipartReader reader("edge", [](std::string_view) {});
  const std::size_t half = text.size() / 2;
  reader.feed(std::string_view(text).substr(0, half));
  reader.feed(std::string_view(text).substr(half));
  return 0;
}
