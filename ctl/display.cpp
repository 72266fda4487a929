#include "ctl/display.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace ctl {

// The length of the UTF-8 character at the begin of a text; 0 where there is none, or one
// that a terminal would act upon.
static std::size_t characterLength(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return lead >= ' ' && lead != 0x7F ? 1 : 0;
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || text.size() < length) return 0;
  for (const char c : text.substr(1, length - 1))
    if ((static_cast<unsigned char>(c) & 0xC0U) != 0x80) return 0;
  // The second half of Latin-1's control characters, and the marks that turn the
  // direction of writing.
  const auto second = static_cast<unsigned char>(text[1]);
  if (lead == 0xC2 && second < 0xA0) return 0;
  const bool punctuation = lead == 0xE2 && (second == 0x80 || second == 0x81);
  return punctuation ? 0 : length;
}

static void appendEscaped(std::string& out, char c) {
  char code[sizeof "\\xNN"];
  (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
  out += code;
}

std::string visible(std::string_view text, std::size_t most) {
  std::string out;
  while (!text.empty() && out.size() < most) {
    const std::size_t length = characterLength(text);
    if (length == 0) appendEscaped(out, text[0]);
    out += text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  if (!text.empty()) out += "...";
  return out;
}

static bool usesColours() {
  static const bool uses =
      isatty(STDOUT_FILENO) == 1 && !std::getenv("NO_COLOR") && std::getenv("TERM");
  return uses;
}

std::string inColour(Colour colour, const std::string& text) {
  constexpr const char* kCodes[] = {"", "\033[32m", "\033[33m", "\033[31m", "\033[2m"};
  if (colour == Colour::plain || text.empty() || !usesColours()) return text;
  return kCodes[static_cast<int>(colour)] + text + "\033[0m";
}

// Characters, as far as each takes one column.
static std::size_t columnsOf(const std::string& text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80;
  }));
}

static std::vector<std::size_t> widthsOf(const std::vector<std::vector<Cell>>& rows) {
  std::vector<std::size_t> widths;
  for (const std::vector<Cell>& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i + 1 < row.size(); ++i)
      widths[i] = std::max(widths[i], columnsOf(row[i].text));
  }
  return widths;
}

std::string Table::text() const {
  constexpr std::size_t kGap = 2;
  const std::vector<std::size_t> widths = widthsOf(rows);
  std::string out;
  for (const std::vector<Cell>& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      out += inColour(row[i].colour, row[i].text);
      if (i + 1 < row.size()) out.append(widths[i] + kGap - columnsOf(row[i].text), ' ');
    }
    out += '\n';
  }
  return out;
}

void print(std::string_view text) {
  (void)std::fwrite(text.data(), 1, text.size(), stdout);
}

void complain(const std::string& text) {
  (void)std::fprintf(stderr, "vesk-ctl: %s\n", text.c_str());
}

}  // namespace ctl
