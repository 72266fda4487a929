#include "layer/directive.h"

#include "layer/text.h"

namespace host {

const std::string* Directive::find(std::string_view name) const {
  for (const auto& parameter : parameters) {
    if (parameter.first == name) return &parameter.second;
  }
  return nullptr;
}

void Directive::set(std::string_view name, std::string value) {
  for (auto& parameter : parameters) {
    if (parameter.first != name) continue;
    parameter.second = std::move(value);
    return;
  }
  parameters.emplace_back(std::string(name), std::move(value));
}

static bool isBlank(char c) {
  return kBlanks.find(c) != std::string_view::npos;
}

static void skipBlanks(std::string_view* text) {
  while (!text->empty() && isBlank(text->front())) text->remove_prefix(1);
}

// Takes what stands before the next blank, '=' or quote.
static std::string_view takeName(std::string_view* text) {
  std::string_view name = text->substr(0, text->find_first_of(" \t=\""));
  text->remove_prefix(name.size());
  return name;
}

// Takes a quoted value, from behind its first quote to its last: false when the
// last one is missing.
static bool takeQuoted(std::string_view* text, std::string* value) {
  while (!text->empty()) {
    char c = text->front();
    text->remove_prefix(1);
    if (c == '"') return true;
    bool escape =
        c == '\\' && !text->empty() && (text->front() == '"' || text->front() == '\\');
    if (escape) {
      c = text->front();
      text->remove_prefix(1);
    }
    value->push_back(c);
  }
  return false;
}

static std::string takeValue(std::string_view* text, std::string_view name,
                             std::string* value) {
  if (!text->empty() && text->front() == '"') {
    text->remove_prefix(1);
    if (takeQuoted(text, value)) return {};
    return "the value of \"" + std::string(name) + "\" has no closing quote";
  }
  *value = text->substr(0, text->find_first_of(kBlanks));
  text->remove_prefix(value->size());
  if (value->empty()) return "\"" + std::string(name) + "\" has no value";
  if (value->find('"') == std::string::npos) return {};
  return "the value of \"" + std::string(name) + "\" has a quote in the middle";
}

static std::string takeParameter(std::string_view* text, Directive* directive) {
  std::string_view name = takeName(text);
  if (name.empty() || text->empty() || text->front() != '=') {
    return "expected name=\"value\" at \"" + std::string(name) + std::string(*text) +
           "\"";
  }
  text->remove_prefix(1);
  std::string value;
  std::string reason = takeValue(text, name, &value);
  if (!reason.empty()) return reason;
  if (!text->empty() && !isBlank(text->front())) {
    return "expected a blank behind the value of \"" + std::string(name) + "\"";
  }
  if (directive->find(name)) return "\"" + std::string(name) + "\" is given twice";
  directive->parameters.emplace_back(std::string(name), std::move(value));
  return {};
}

std::string parseParameters(std::string_view text, Directive* directive) {
  for (skipBlanks(&text); !text.empty() && text.front() != '#'; skipBlanks(&text)) {
    std::string reason = takeParameter(&text, directive);
    if (!reason.empty()) return reason;
  }
  return {};
}

}  // namespace host
