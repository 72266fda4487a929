#include "backend/session_id.h"

#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>

#include "backend/text.h"

namespace backend {

constexpr std::string_view kName = "JSESSIONID";
constexpr std::string_view kMark = "TR";
constexpr std::size_t kMaxId = 64;
constexpr std::size_t kMaxSessionText = 1024;
constexpr int kFourDigits = 10000;

static bool isAlnum(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

static std::string digitsOf(int number, int base) {
  constexpr std::string_view kDigits = "0123456789abcdefghijklmnopqrstuvwxyz";
  std::string text;
  for (; number > 0; number /= base) {
    text.insert(text.begin(), kDigits[static_cast<std::size_t>(number % base)]);
  }
  return text;
}

static std::string padded(const std::string& text, std::size_t width) {
  return text.size() < width ? std::string(width - text.size(), '0') + text : text;
}

std::string repIdOfPort(int port) {
  if (port < kFourDigits) return padded(digitsOf(port, 10), kRepIdLength);
  constexpr int kThreeDigits = 36 * 36 * 36;
  const int number = port - kFourDigits;
  const char lead = static_cast<char>('p' + number / kThreeDigits);
  return lead + padded(digitsOf(number % kThreeDigits, 36), kRepIdLength - 1);
}

std::string buddyText(const std::vector<std::string>& names) {
  std::string text;
  for (std::string name : names) {
    name.resize(kRepIdLength, '*');
    text += name;
  }
  return text;
}

std::string sessionIdText(const SessionId& session) {
  std::string text = session.owner + session.id;
  if (!session.buddies.empty()) text.append(kMark).append(session.buddies);
  return text;
}

// Strict, since an id that is adopted goes out again in a Set-Cookie header and
// is kept in memory.
std::optional<SessionId> parseSessionId(std::string_view text) {
  if (text.size() <= kRepIdLength || text.size() > kMaxSessionText) return std::nullopt;
  if (!isHeaderSafe(text)) return std::nullopt;
  SessionId session;
  session.owner = text.substr(0, kRepIdLength);
  const std::string_view rest = text.substr(kRepIdLength);
  const std::size_t mark = rest.find(kMark);
  session.id = rest.substr(0, mark);
  if (mark != std::string_view::npos) session.buddies = rest.substr(mark + kMark.size());
  const bool wellFormed = !session.id.empty() && session.id.size() <= kMaxId &&
                          std::all_of(session.id.begin(), session.id.end(), isAlnum);
  if (!wellFormed) return std::nullopt;
  return session;
}

// The value of the cookie of that exact name in a Cookie header.
static std::string_view cookieIn(std::string_view header) {
  while (!header.empty()) {
    const std::size_t end = std::min(header.find(';'), header.size());
    const std::string_view pair = trimmed(header.substr(0, end));
    header.remove_prefix(std::min(end + 1, header.size()));
    const bool isOurs = pair.starts_with(kName) && pair.size() > kName.size() &&
                        pair[kName.size()] == '=';
    if (isOurs) return pair.substr(kName.size() + 1);
  }
  return {};
}

// The web server's side may hand on what stands behind the id in a URI.
static std::string_view cutAtEnd(std::string_view text) {
  return text.substr(0, text.find_first_of(";, \t\"/?&"));
}

std::optional<SessionId> sessionIdOf(const ServiceRequest& request) {
  for (const NamedText& header : request.headers) {
    if (header.name != "cookie" && header.name != "Cookie") continue;
    std::optional<SessionId> found = parseSessionId(cutAtEnd(cookieIn(header.value)));
    if (found) return found;
  }
  if (!request.sessionId) return std::nullopt;
  return parseSessionId(cutAtEnd(*request.sessionId));
}

std::string randomSessionPart() {
  unsigned char bytes[12];
  ssize_t got = 0;
  do {
    got = getrandom(bytes, sizeof(bytes), 0);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof(bytes))) {
    throw std::runtime_error("no random bytes for a session id");
  }
  return hexOf(bytes);
}

}  // namespace backend
