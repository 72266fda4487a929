#include "ctl/clock_text.h"

#include <cstdio>

#include "context/event_text.h"

namespace ctl {

std::string clockText(std::time_t time) {
  std::tm local{};
  char text[sizeof "00:00:00"] = "";
  if (localtime_r(&time, &local)) (void)std::strftime(text, sizeof text, "%T", &local);
  return text;
}

std::string durationText(std::int64_t seconds) {
  EventText text;
  clearText(&text);
  addDuration(&text, seconds);
  return text.text;
}

std::string millisText(double millis) {
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.2f", millis);
  return text;
}

}  // namespace ctl
