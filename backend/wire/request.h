// A request as the web server's side sent it: the block of PROXY_SERVICE_40.
//
// Ownership: all texts are views of the block, which the caller keeps for as
// long as the request is used.
// Threads: any; nothing is shared.
// Errors: parseServiceRequest throws ProtocolError and says what was wrong.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "backend/wire/protocol.h"

namespace backend {

struct NamedText {
  std::string_view name;
  std::string_view value;
};

struct ServiceRequest {
  std::vector<NamedText> attributes;           // in the order of arrival
  std::string_view variables[kVariableCount];  // in the order of kVariables
  std::string_view uri;
  std::optional<std::string_view> extra;
  std::vector<NamedText> headers;  // in the browser's order
  std::optional<std::string_view> sessionId;
};

// Takes a block apart. The order of items and the number of each are checked as
// strictly as they are told in docs/protocol.md.
[[nodiscard]] ServiceRequest parseServiceRequest(std::string_view block);

// The value of a variable by its name; empty when it is absent.
[[nodiscard]] std::string_view variableOf(const ServiceRequest& request,
                                          std::string_view name);

// The first header of that name, whatever its case; null when there is none.
[[nodiscard]] const std::string_view* headerOf(const ServiceRequest& request,
                                               std::string_view name);

}  // namespace backend
