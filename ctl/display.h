// What goes to a terminal: texts of strangers made harmless, columns, colours.
//
// Threads: one. Failure: none; what can't be written is lost. Units: bytes, but columns
// are characters.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

// Bytes of a stranger's text that are shown at most, where nothing else is said.
constexpr std::size_t kMostShown = 200;

// A text that may come from anywhere: control characters, and all that isn't UTF-8, stand
// as \xNN, what is too long ends in "...".
[[nodiscard]] std::string visible(std::string_view text, std::size_t most = kMostShown);

// As `visible`, for a text of many lines that comes in parts: line ends and tabs stay,
// and nothing is too long.
class VisibleStream {
 public:
  [[nodiscard]] std::string pass(std::string_view part);

 private:
  std::string rest;  // the begin of a character whose end may come
};

enum class Colour { plain, good, warning, bad, faint };

// A text in a colour, where standard output is a terminal and NO_COLOR isn't set; else
// the text itself.
[[nodiscard]] std::string inColour(Colour colour, const std::string& text);

struct Cell {
  std::string text;  // harmless
  Colour colour = Colour::plain;
};

// The first row of a table.
[[nodiscard]] std::vector<Cell> titles(std::initializer_list<const char*> texts);

// Rows of cells below each other. The last cell of a row may be of any length, and counts
// for no column's width.
class Table {
 public:
  void add(std::vector<Cell> row) {
    rows.push_back(std::move(row));
  }
  [[nodiscard]] std::string text() const;

 private:
  std::vector<std::vector<Cell>> rows;
};

// To standard output.
void print(std::string_view text);
// A line of its own on standard error, behind the program's name.
void complain(const std::string& text);

}  // namespace ctl
