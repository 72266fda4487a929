// The page that tells all that has arrived, as JSON.

#include <nlohmann/json.hpp>

#include "backend/pages/reply.h"
#include "backend/text.h"

namespace backend {

using Json = nlohmann::ordered_json;

static Json optionalText(const std::optional<std::string_view>& text) {
  return text ? Json(asUtf8(*text)) : Json(nullptr);
}

static Json variablesOf(const ServiceRequest& request) {
  Json variables = Json::object();
  for (std::size_t i = 0; i < kVariableCount; ++i) {
    variables[std::string(kVariables[i].name)] = asUtf8(request.variables[i]);
  }
  return variables;
}

static Json headersOf(const ServiceRequest& request) {
  Json headers = Json::array();
  for (const NamedText& header : request.headers) {
    headers.push_back(Json::array({asUtf8(header.name), asUtf8(header.value)}));
  }
  return headers;
}

static Json attributesOf(const ServiceRequest& request) {
  Json attributes = Json::array();
  for (const NamedText& attribute : request.attributes) {
    attributes.push_back({{"name", asUtf8(attribute.name)},
                          {"size", attribute.value.size()},
                          {"text", asUtf8(attribute.value)}});
  }
  return attributes;
}

using Question = std::string (Exchange::*)(std::string_view name);

// Asks for every value that the query gives under that key, in its order.
static Json answersTo(const PageCall& call, std::string_view key, Question ask) {
  Json answers = Json::array();
  for (const auto& [name, value] : call.query) {
    if (name != key) continue;
    const std::string answer = (call.exchange.*ask)(value);
    answers.push_back(Json::array({asUtf8(value), asUtf8(answer)}));
  }
  return answers;
}

// snoop?header=NAME&realpath=PATH, both as often as one likes.
void showSnoop(const PageCall& call) {
  const ServiceRequest& request = call.request;
  Json page;
  page["server"] = serverFacts(call);
  page["method"] = asUtf8(variableOf(request, "REQUEST_METHOD"));
  page["uri"] = asUtf8(request.uri);
  page["extra"] = optionalText(request.extra);
  page["session_id"] = optionalText(request.sessionId);
  page["variables"] = variablesOf(request);
  page["headers"] = headersOf(request);
  page["attributes"] = attributesOf(request);
  page["get_header"] = answersTo(call, "header", &Exchange::askHeader);
  page["get_realpath"] = answersTo(call, "realpath", &Exchange::askRealPath);
  sendJson(call, page);
}

// attribute?name=NAME&value=TEXT sets an attribute of the request and shows
// those that came with it. One set here rides on a later attempt to serve the
// same request, and no further.
void showAttribute(const PageCall& call) {
  const std::string name(valueOf(call.query, "name", "vesk.demo"));
  const std::string value(
      valueOf(call.query, "value", "set by " + call.server.options.repId));
  call.exchange.setAttribute(name, value);
  sendJson(call, {{"server", serverFacts(call)},
                  {"set", {{"name", asUtf8(name)}, {"text", asUtf8(value)}}},
                  {"received", attributesOf(call.request)}});
}

}  // namespace backend
