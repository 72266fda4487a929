// The block of a request from plain texts, as the web server's side sends it.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "backend/wire/bytes.h"
#include "backend/wire/request.h"

namespace backend_test {

using Texts = std::vector<std::pair<std::string, std::string>>;

struct BlockParts {
  std::string uri = "/demo/";
  std::string query = {};
  Texts headers = {};
  Texts attributes = {};
  std::string sessionId = {};  // empty: no such item
};

inline std::string word(std::int32_t number) {
  std::string bytes;
  backend::appendWord(bytes, number);
  return bytes;
}

inline std::string text(std::string_view value) {
  std::string bytes;
  backend::appendText(bytes, value);
  return bytes;
}

inline std::string itemsOf(std::int32_t id, const Texts& texts) {
  std::string items;
  for (const auto& [name, value] : texts) items += word(id) + text(name) + text(value);
  return items;
}

inline std::string blockOf(const BlockParts& parts) {
  std::map<std::string_view, std::string> values = {{"QUERY_STRING", parts.query},
                                                    {"REQUEST_METHOD", "GET"}};
  std::string block = itemsOf(18, parts.attributes);
  for (const backend::VariableRow& row : backend::kVariables) {
    block += word(row.id) + text(values[row.name]);
  }
  block += word(23) + text(parts.uri) + itemsOf(32, parts.headers);
  if (!parts.sessionId.empty()) block += word(42) + text(parts.sessionId);
  return block + word(31);
}

}  // namespace backend_test
