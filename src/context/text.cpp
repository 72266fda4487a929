#include "context/text.h"

#include <climits>
#include <cstdlib>
#include <cstring>

std::int64_t textLength(const char* text) {
  return text ? static_cast<std::int64_t>(std::strlen(text)) : 0;
}

const char* orElse(const char* text, const char* absent) {
  return text ? text : absent;
}

// A number that has wrapped would name another length or count in the log than there was.
std::int32_t clampToInt32(std::int64_t number) {
  if (number > INT_MAX) return INT_MAX;
  if (number < INT_MIN) return INT_MIN;
  return static_cast<std::int32_t>(number);
}

// FNV-1a. It isn't safe against texts that are made to collide: a table of 8,192
// entries then costs what a walk would.
std::uint32_t hashText(const char* text) {
  std::uint32_t hash = 2166136261U;
  for (; *text; ++text) hash = (hash ^ static_cast<std::uint8_t>(*text)) * 16777619U;
  return hash;
}

std::int64_t hexstrtol(const char* text) {
  constexpr int kHexadecimal = 16;
  if (!text) return 0;
  char* end = nullptr;
  const std::int64_t number = std::strtol(text, &end, kHexadecimal);
  // A half-read number is a typing error: better no flags than other flags.
  return *end ? 0 : number;
}
