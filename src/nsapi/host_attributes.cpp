#include "nsapi/host_attributes.h"

#include <nsapi.h>

#include <string_view>

#include "context/text.h"
#include "nsapi/host_objects.h"

constexpr std::string_view kPrefix = "vesk-attribute-";

// The operation has no result: a list that stayed as it was is how it tells that memory
// ran out.
std::int32_t addTextAttribute(vesk_request* req, const char* name, const char* text) {
  const veskAttribute* before = req->attributes;
  req->setAttribute(req, name, text, static_cast<std::int32_t>(textLength(text)));
  return req->attributes == before ? -1 : 0;
}

// A host's function may have left a parameter without a value.
static bool isAttribute(const pb_param* param) {
  return param->name && param->value &&
         std::string_view(param->name).starts_with(kPrefix);
}

// Only this block is looked at: of the others, one holds the client's headers, and one
// its request line. Both texts lie in it as long as the request lasts, so there is no
// copy.
std::int32_t addHostAttributes(vesk_request* req) {
  BlockWalk walk{requestOf(req)->vars, 0, nullptr};
  while (const pb_param* param = nextParameter(&walk)) {
    if (!isAttribute(param)) continue;
    const char* name = param->name + kPrefix.size();
    if (addTextAttribute(req, name, param->value) < 0) return -1;
    req->trace(req, "Attribute %s from the web server", name);
  }
  return 0;
}
