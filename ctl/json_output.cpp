#include "ctl/json_output.h"

#include <cmath>
#include <stdexcept>

#include "ctl/display.h"

namespace ctl {

void printJson(const Json& value) {
  constexpr int kIndent = 2;
  print(value.dump(kIndent, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace));
  print("\n");
}

Json parsePeerJson(const std::string& text) {
  constexpr int kDeepest = 32;
  return Json::parse(text, [](int depth, Json::parse_event_t, Json&) {
    if (depth > kDeepest) throw std::runtime_error("the answer is nested too deep");
    return true;
  });
}

Json textOrNull(const std::string& text) {
  try {
    (void)Json(text).dump();
    return text;
  } catch (const Json::type_error&) {
    return nullptr;
  }
}

double roundedMillis(double millis) {
  constexpr double kParts = 1000.0;
  return std::round(millis * kParts) / kParts;
}

}  // namespace ctl
