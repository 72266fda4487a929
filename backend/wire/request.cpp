#include "backend/wire/request.h"

#include "backend/text.h"
#include "backend/wire/bytes.h"
#include "backend/wire/protocol.h"

namespace backend {

static ProtocolError unexpectedItem(std::int32_t id, const char* wanted) {
  return ProtocolError("item " + std::to_string(id) + " in request block, wanted " +
                       wanted);
}

// Reads attributes up to the first other item and returns that item's id.
static std::int32_t readAttributes(ByteReader& reader, ServiceRequest& request) {
  std::int32_t id = reader.word();
  while (id == PROXY_SET_ATTRIBUTE) {
    const std::string_view name = reader.text();
    request.attributes.push_back({name, reader.text()});
    id = reader.word();
  }
  return id;
}

// Reads the variables, the first one's id being read, and returns the next id.
static std::int32_t readVariables(ByteReader& reader, std::int32_t id,
                                  ServiceRequest& request) {
  for (std::size_t i = 0; i < kVariableCount; ++i) {
    if (id != kVariables[i].id) {
      throw unexpectedItem(id, std::string(kVariables[i].name).c_str());
    }
    request.variables[i] = reader.text();
    id = reader.word();
  }
  return id;
}

static std::int32_t readHeaders(ByteReader& reader, std::int32_t id,
                                ServiceRequest& request) {
  while (id == PROXY_SET_HEADER) {
    const std::string_view name = reader.text();
    request.headers.push_back({name, reader.text()});
    id = reader.word();
  }
  return id;
}

ServiceRequest parseServiceRequest(std::string_view block) {
  ByteReader reader(block);
  ServiceRequest request{};
  std::int32_t id = readAttributes(reader, request);
  id = readVariables(reader, id, request);
  if (id != PROXY_SET_URI) throw unexpectedItem(id, "the URI");
  request.uri = reader.text();
  id = reader.word();
  if (id == PROXY_SET_EXTRA) {
    request.extra = reader.text();
    id = reader.word();
  }
  id = readHeaders(reader, id, request);
  if (id == PROXY_SET_SESSION_ID) {
    request.sessionId = reader.text();
    id = reader.word();
  }
  if (id != PROXY_HEADERS_END) throw unexpectedItem(id, "the end item");
  if (reader.left() != 0) {
    throw ProtocolError(std::to_string(reader.left()) + " bytes behind the end item");
  }
  return request;
}

std::string_view variableOf(const ServiceRequest& request, std::string_view name) {
  for (std::size_t i = 0; i < kVariableCount; ++i) {
    if (kVariables[i].name == name) return request.variables[i];
  }
  return {};
}

const std::string_view* headerOf(const ServiceRequest& request, std::string_view name) {
  for (const NamedText& header : request.headers) {
    if (equalsNoCase(header.name, name)) return &header.value;
  }
  return nullptr;
}

}  // namespace backend
