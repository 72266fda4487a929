#include "status/html_page.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "context/event_text.h"
#include "status/status_style.h"

void beginPage(TextBuffer* page, const char* title, std::int32_t refresh) {
  add(page,
      "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
      "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\">\n");
  if (refresh > 0) {
    add(page, "<meta http-equiv=\"refresh\" content=\"");
    addNumber(page, refresh);
    add(page, "\">\n");
  }
  add(page, "<title>");
  add(page, title);
  add(page, "</title>\n<style>");
  add(page, kStatusStyle);
  add(page, "</style></head><body>\n");
}

void endPage(TextBuffer* page) {
  add(page, "</body></html>\n");
}

void addPart(TextBuffer* page, const char* part) {
  add(page, part);
}

void addPart(TextBuffer* page, std::int64_t number) {
  addNumber(page, number);
}

void beginTable(TextBuffer* page, std::initializer_list<const char*> heads) {
  constexpr std::size_t kNarrowColumns = 3;  // that many fit into any window
  put(page, "<div class=\"card\"><table",
      heads.size() > kNarrowColumns ? " class=\"stack\"" : "", "><thead><tr>");
  for (const char* head : heads) {
    const bool number = *head == '#';
    put(page, number ? "<th class=\"n\">" : "<th>", number ? head + 1 : head, "</th>");
  }
  put(page, "</tr></thead><tbody>\n");
}

void endTable(TextBuffer* page) {
  put(page, "</tbody></table></div>\n");
}

void cell(TextBuffer* page, const char* label, const char* classes) {
  put(page, "<td data-l=\"", label, "\" class=\"", classes, "\">");
}

void addPath(TextBuffer* page, const char* path) {
  addHtml(page, *path != '\0' ? path : "/");
}

void addTime(TextBuffer* page, std::int64_t seconds) {
  const std::time_t time = seconds;
  std::tm parts;
  char text[40];
  if (!gmtime_r(&time, &parts)) return;
  add(page, {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts)});
}

void addAge(TextBuffer* page, std::int64_t seconds) {
  EventText text;
  clearText(&text);
  addDuration(&text, seconds > 0 ? seconds : 0);
  add(page, text.text);
}

void addMicros(TextBuffer* page, std::int64_t micros) {
  constexpr double kMicrosPerMilli = 1e3;
  constexpr double kMicrosPerSecond = 1e6;
  const auto number = static_cast<double>(micros);
  char text[40];
  int length = 0;
  if (number < kMicrosPerMilli)
    length = std::snprintf(text, sizeof text, "%.0f \u00b5s", number);
  else if (number < kMicrosPerSecond)
    length = std::snprintf(text, sizeof text, "%.1f ms", number / kMicrosPerMilli);
  else
    length = std::snprintf(text, sizeof text, "%.2f s", number / kMicrosPerSecond);
  add(page, {text, static_cast<std::size_t>(length)});
}

const char* stateClass(const char* state) {
  if (std::strcmp(state, "up") == 0) return "good";
  if (std::strcmp(state, "down") == 0) return "bad";
  return std::strcmp(state, "draining") == 0 ? "warn" : "soft";
}
