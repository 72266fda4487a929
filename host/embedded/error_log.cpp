#include "embedded/error_log.h"

#include <time.h>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>

namespace host {

constexpr long kNanosecondsPerMillisecond = 1000000;

// By degree: LOG_WARN to LOG_VERBOSE.
constexpr std::string_view kDegrees[] = {"warning", "misconfiguration", "security",
                                         "failure", "catastrophe",      "info",
                                         "verbose"};

// The word of a degree of log_error.
static std::string_view degreeWord(int degree) {
  bool known = degree >= 0 && degree < static_cast<int>(std::size(kDegrees));
  return known ? kDegrees[degree] : "failure";
}

static void putTime(std::string* line) {
  timespec now{};
  (void)clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  (void)gmtime_r(&now.tv_sec, &utc);
  char text[40];
  std::size_t size = strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &utc);
  line->append(text, size);
  (void)std::snprintf(text, sizeof(text), ".%03ldZ ",
                      now.tv_nsec / kNanosecondsPerMillisecond);
  line->append(text);
}

// Whether a text begins like an entry: with a date.
static bool looksLikeEntry(std::string_view text) {
  constexpr std::string_view kDate = "dddd-dd-ddT";
  if (text.size() < kDate.size()) return false;
  return std::equal(kDate.begin(), kDate.end(), text.begin(), [](char mark, char c) {
    return mark == 'd' ? c >= '0' && c <= '9' : c == mark;
  });
}

// A message stays as it is, but that a peer's text in it must not pass for an
// entry of its own.
static void putMessage(std::string* line, std::string_view message) {
  for (std::size_t i = 0; i < message.size(); ++i) {
    line->push_back(message[i]);
    const bool lineEnds = message[i] == '\n' || message[i] == '\r';
    if (lineEnds && looksLikeEntry(message.substr(i + 1))) line->push_back('\t');
  }
}

void ErrorLog::write(int degree, std::string_view function,
                     std::string_view message) noexcept try {
  std::string line;
  line.reserve(message.size() + 128);
  putTime(&line);
  line.append(degreeWord(degree)).append(" ");
  putMessage(&line, function);
  line.append(" ");
  putMessage(&line, message);
  line.append("\n");
  file_.write(line);
} catch (const std::bad_alloc&) {
  file_.write("out of memory\n");
}

}  // namespace host
