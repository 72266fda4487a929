// The texts that a host reads: parameters of a directive, and the URI of a request.
#include <string>

#include "layer/directive.h"
#include "layer/stages.h"
#include "layer/uri.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) text.push_back(static_cast<char>(data[i]));
  host::Directive directive;
  (void)host::parseParameters(text, &directive);
  std::string decoded;
  if (host::decodeUri(text, &decoded)) (void)host::uriIsEvil(decoded);
  const std::size_t half = text.size() / 2;
  (void)host::patternMatches(text.substr(0, half), text.substr(half));
  return 0;
}
