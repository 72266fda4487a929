#include "context/privacy.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "context/guards.h"
#include "context/spelling.h"

constexpr int kShownCharacters = 8;
constexpr char kCutMark[] = "...";
static_assert(kShownCharacters + sizeof kCutMark == kShownSessionSize);

// Headers, and what web servers call their like.
constexpr const char* kSecretNames[] = {
    "authorization", "proxy-authorization", "cookie",       "cookie2",
    "set-cookie",    "set-cookie2",         "auth-password"};

// Asked for many a trace line that nobody reads, so the first letter goes first.
static bool isSecretName(const char* name) {
  if (!*name || !std::strchr("AaCcPpSs", *name)) return false;
  return std::any_of(std::begin(kSecretNames), std::end(kSecretNames),
                     [name](const char* secret) { return isSpellingOf(name, secret); });
}

const char* shownSession(const vesk_request* req, const char* id, char* buffer) {
  if (!guarded(req, Guard::privacy)) return id;
  (void)std::snprintf(buffer, kShownSessionSize, "%.*s%s", kShownCharacters, id,
                      kCutMark);
  return buffer;
}

void shortenSession(const char* id, char* buffer) {
  const std::size_t length = std::strcspn(id, "; ,");
  const bool cut = length > kShownCharacters;
  (void)std::snprintf(buffer, kShownSessionSize, "%.*s%s",
                      cut ? kShownCharacters : static_cast<int>(length), id,
                      cut ? kCutMark : "");
}

// Nothing of it, not even its begin: a password may be no longer than what would be
// shown.
const char* shownValue(const vesk_request* req, const char* name, const char* value) {
  return guarded(req, Guard::privacy) && isSecretName(name) ? "***" : value;
}

// Cuts the id that begins at `id`: where the line goes on. A slash may belong to an id,
// so that more than the id may go; the line only gets shorter.
static char* cutSession(char* id) {
  id +=
      std::strspn(id, "\\\"");  // a cookie's value may stand in quotes, and these escaped
  char* end = id + std::strcspn(id, "; ,&?#\"'\\)\t\r\n");
  if (end - id <= kShownCharacters) return end;
  char* cut = id + kShownCharacters;
  const std::size_t marks =
      std::min(sizeof kCutMark - 1, static_cast<std::size_t>(end - cut));
  std::memcpy(cut, kCutMark, marks);
  std::memmove(cut + marks, end, std::strlen(end) + 1);
  return cut + marks;
}

// In any case: servers write the name in small letters where it stands in a URI.
void hideSessionIds(char* line) {
  constexpr char kName[] = "jsessionid";
  for (char* at = strcasestr(line, kName); at; at = strcasestr(at, kName)) {
    at += sizeof kName - 1;
    // Behind one separator, "=" or the first byte of "%3D"; a blank ends the name.
    if (*at && *at != ' ') at = cutSession(at + 1);
  }
}
