#include "backend/log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <string>

#include "backend/text.h"

namespace backend {

constexpr std::size_t kMaxLine = 2000;

static std::string timeStamp() {
  timeval now{};
  gettimeofday(&now, nullptr);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  char date[32];
  const std::size_t used = strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &utc);
  char text[48];
  (void)snprintf(text, sizeof(text), "%.*s.%03dZ", static_cast<int>(used), date,
                 static_cast<int>(now.tv_usec / 1000));
  return text;
}

static void appendPrintable(std::string& line, std::string_view text) {
  for (const char c : text.substr(0, kMaxLine)) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      line.push_back(c);
    } else {
      line.append("\\x").append(hexOf({&byte, 1}));
    }
  }
}

void logLine(std::string_view peer, std::string_view text) {
  std::string line = timeStamp() + " vesk-backend[" + std::to_string(getpid()) + "] ";
  if (!peer.empty()) line.append(peer).append(": ");
  appendPrintable(line, text);
  line.push_back('\n');
  // Standard error is where trouble is told: when it fails, there is no other
  // place.
  (void)!write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace backend
