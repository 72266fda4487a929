#include "backend/pages/request_body.h"

#include "backend/log.h"
#include "backend/text.h"

namespace backend {

BodyPlan planOf(const PageCall& call) {
  const std::string_view* text = headerOf(call.request, "content-length");
  if (!text) return {};
  const std::optional<std::int64_t> length = wholeNumber(*text);
  if (length && *length >= 0) return {length};
  throw BadRequest("the Content-Length of the request is not a number");
}

BadRequest brokenBody(const PageCall& call, std::int64_t total) {
  const std::string reason =
      "the request body broke off after " + std::to_string(total) + " bytes";
  logLine(call.connection.peer(), reason);
  return BadRequest(reason);
}

}  // namespace backend
