#include "context/vesk_error.h"

#include <cstdio>
#include <cstring>

constexpr int kErrorTextSize = 256;   // bytes of the buffer
constexpr int kErrorTextLimit = 255;  // bytes that may be used, with the NUL

const char* describeError(std::int32_t code) {
  // Two codes have texts of their own; the third is told by a page only when it must, and
  // falls to the general form.
  if (code == EVESK_PROTOCOL) return "Vesk connector protocol out of sync";
  if (code == EVESK_BUSY) return "Vesk too busy or out of memory";

  // Every thread describes errors, so each has a buffer of its own.
  static thread_local char text[kErrorTextSize];
  char reason[kErrorTextSize];
  const char* known = strerror_r(code, reason, sizeof reason);
  (void)std::snprintf(text, kErrorTextLimit, "%d %s", code, known ? known : "null");
  return text;
}

const char* describeFailure(std::int32_t code) {
  return describeError(code == 0 ? EVESK_PROTOCOL : code);
}
