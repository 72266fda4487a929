#include "layer/option_check.h"

#include "context/guard_names.h"

namespace host {

constexpr char kNoGuardsGiven[] =
    "veskinit without guards: a server or browser that misbehaves can harm others; "
    "guards=\"all\" is recommended";

static std::string unknownGuard(std::string_view word) {
  std::string names = "all, none";
  for (const GuardRow& row : kGuards) names.append(", ").append(row.name);
  return "guards: unknown name \"" + std::string(word) + "\"; known are " + names;
}

static OptionFindings checkGuards(const Directive& init) {
  const std::string* value = init.find("guards");
  if (!value) return {{}, kNoGuardsGiven};
  const GuardChoice choice = readGuards(*value);
  if (choice.unknown.empty()) return {};
  return {unknownGuard(choice.unknown), {}};
}

OptionFindings checkOptions(const Directive& init) {
  const std::string* name = init.find("fn");
  if (!name || *name != "veskinit") return {};
  return checkGuards(init);
}

}  // namespace host
