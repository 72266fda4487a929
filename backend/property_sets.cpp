#include "backend/property_sets.h"

#include <stdexcept>

namespace backend {

constexpr std::string_view kLineEnds("\r\n\0", 3);
constexpr char kEndOfText = 0x1a;

static bool isKey(std::string_view key) {
  if (key.empty() || key.front() == '#' || key.front() == kEndOfText) return false;
  // The first character is part of the key whatever it is, even a '='.
  return key.find_first_of(kLineEnds) == std::string_view::npos &&
         key.find('=', 1) == std::string_view::npos;
}

// A backslash is an escape in values alone: whoever reads a line takes its key
// as it stands.
void appendProperty(std::string& text, std::string_view key, std::string_view value) {
  if (!isKey(key)) throw std::invalid_argument("not a property key");
  if (value.find_first_of(kLineEnds) != std::string_view::npos) {
    throw std::invalid_argument("a property value is one line");
  }
  text.append(key).push_back('=');
  for (const char c : value) {
    if (c == '\\') text.push_back(c);
    text.push_back(c);
  }
  text.push_back('\n');
}

std::string serverProps(const Options& options) {
  std::string text;
  appendProperty(text, "mapcheck", std::to_string(options.mapCheck));
  appendProperty(text, "proxyretryinterval", std::to_string(options.proxyRetryInterval));
  appendProperty(text, "weight", std::to_string(options.weight));
  appendProperty(text, "algorithm", options.algorithm);
  appendProperty(text, "sticky", options.sticky ? "true" : "false");
  appendProperty(text, "rep_id", options.repId);
  return text;
}

std::string servletMappings(const Options& options) {
  std::string text;
  for (const Mapping& mapping : options.mappings) {
    appendProperty(text, mapping.pattern, mapping.target);
  }
  return text;
}

std::string clusteredServers(const std::vector<std::string>& servers) {
  std::string text;
  int number = 0;
  for (const std::string& server : servers) {
    appendProperty(text, "server" + std::to_string(++number), server);
  }
  return text;
}

}  // namespace backend
