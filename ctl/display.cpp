#include "ctl/display.h"

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace ctl {

// One character in UTF-8, as its bytes tell it.
struct Character {
  std::size_t length;  // bytes; 0: no character
  std::uint32_t code;
};

static std::size_t lengthByLead(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  return lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
}

static Character decode(std::string_view text) {
  constexpr std::uint32_t kLeadMasks[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  constexpr std::uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lengthByLead(lead);
  if (text.size() < length) return {0, 0};
  std::uint32_t code = lead & kLeadMasks[length];
  for (std::size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0U) != 0x80) return {0, 0};
    code = code << 6U | (next & 0x3FU);
  }
  return {code >= kLeast[length] ? length : 0, code};
}

struct CodeRange {
  std::uint32_t first;
  std::uint32_t last;
};

// What a terminal acts upon, or what makes a text look like another one: control
// characters, those without width, those that turn the direction of writing, and halves
// of pairs.
constexpr CodeRange kHarmful[] = {
    {0, 0x1F},        {0x7F, 0x9F},       {0xAD, 0xAD},          {0x200B, 0x200F},
    {0x2028, 0x202E}, {0x2060, 0x206F},   {0xD800, 0xDFFF},      {0xFEFF, 0xFEFF},
    {0xFFF9, 0xFFFB}, {0xE0000, 0xE0FFF}, {0x110000, UINT32_MAX}};

// The length of the character at the begin of a text; 0 where none can be shown.
static std::size_t characterLength(std::string_view text) {
  const Character character = decode(text);
  const bool harmful = std::any_of(
      std::begin(kHarmful), std::end(kHarmful), [character](const CodeRange& range) {
        return character.code >= range.first && character.code <= range.last;
      });
  return harmful ? 0 : character.length;
}

static void appendEscaped(std::string& out, char c) {
  char code[sizeof "\\xNN"];
  (void)std::snprintf(code, sizeof code, "\\x%02x", static_cast<unsigned char>(c));
  out += code;
}

// Takes one character off a text.
static void appendVisible(std::string& out, std::string_view& text) {
  const std::size_t length = characterLength(text);
  if (length == 0) appendEscaped(out, text[0]);
  out += text.substr(0, length);
  text.remove_prefix(std::max<std::size_t>(length, 1));
}

std::string visible(std::string_view text, std::size_t most) {
  std::string out;
  while (!text.empty() && out.size() < most) appendVisible(out, text);
  if (!text.empty()) out += "...";
  return out;
}

// Whether a text may be the begin of a character and nothing more.
static bool isCutCharacter(std::string_view text) {
  return text.size() < lengthByLead(static_cast<unsigned char>(text[0]));
}

std::string VisibleStream::pass(std::string_view part) {
  const std::string all = rest + std::string(part);
  std::string_view left = all;
  std::string out;
  while (!left.empty() && !isCutCharacter(left)) {
    const bool layout = left[0] == '\n' || left[0] == '\t';
    if (layout) out += left[0];
    if (layout) left.remove_prefix(1);
    if (!layout) appendVisible(out, left);
  }
  rest = left;
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

std::vector<Cell> titles(std::initializer_list<const char*> texts) {
  std::vector<Cell> row;
  for (const char* text : texts) row.push_back({text, Colour::faint});
  return row;
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
