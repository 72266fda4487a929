#include "backend/pages/multipart.h"

#include <gtest/gtest.h>

namespace backend_test {

using backend::MultipartReader;
using State = backend::MultipartReader::State;
using MaybeText = std::optional<std::string>;

TEST(multipart, boundaryIsReadFromTheType) {
  const std::string form = "multipart/form-data; boundary=";
  const std::string longest(70, 'b');
  const std::pair<std::string, MaybeText> rows[] = {
      {form + "abc", "abc"},
      {"Multipart/Form-Data ;charset=x; Boundary=\"a;b\\\"c\"", "a;b\"c"},
      {form + "\"", "\""},
      {form + longest, longest},
      {form + longest + "b", {}},
      {form, {}},
      {"multipart/form-data", {}},
      {"multipart/mixed; boundary=abc", {}},
      {"", {}}};
  for (const auto& [type, boundary] : rows) {
    EXPECT_EQ(backend::multipartBoundary(type), boundary) << type;
  }
}

struct FormRow {
  const char* why;
  std::string body;
  State state;
  MaybeText name;  // of the file
  std::string content;
};

static const std::string kPart = "--B\r\nContent-Disposition: form-data; name=t";
static const std::string kFile = kPart + "; filename=";
static const std::string kField = kPart + "\r\n\r\nno\r\n";
static const std::string kEnd = "\r\n--B--";

static const FormRow kForms[] = {
    {"file", kFile + "a\r\n\r\nxyz" + kEnd + "\r\n", State::done, "a", "xyz"},
    {"empty file", kFile + "a\r\n\r\n" + kEnd, State::done, "a", ""},
    {"field",
     kField + "--B \r\n" + kFile.substr(5) + "\"a;b\"\r\nX: y\r\n\r\nyes\r\n" + kFile +
         "c\r\n\r\nno" + kEnd,
     State::done, "a;b", "yes"},
    {"preamble", "hello\r\n" + kFile + "a\r\n\r\n1" + kEnd, State::done, "a", "1"},
    {"almost an end", kFile + "a\r\n\r\n\r\n-\r\n--\r\n" + kEnd, State::done, "a",
     "\r\n-\r\n--\r\n"},
    {"no file", kField + kEnd.substr(2), State::done, {}, ""},
    {"no headers", "--B\r\n\r\nx" + kEnd, State::done, {}, ""},
    {"cut in the file", kFile + "a\r\n\r\n1234567\r\n--", State::part, "a", "1234"},
    {"cut in the headers", "--B\r\nContent-Dis", State::headers, {}, ""},
    {"longer word", "--BX\r\n\r\nx", State::malformed, {}, ""},
    {"endless headers", "--B\r\n" + std::string(20000, 'h'), State::malformed, {}, ""}};

// The last bytes of a file that is cut off may be held back as the beginning of
// a boundary, so only what must have come is compared.
static void check(const FormRow& row, std::size_t piece) {
  std::string content;
  MultipartReader reader("B", [&](std::string_view bytes) { content.append(bytes); });
  for (std::size_t at = 0; at < row.body.size(); at += piece) {
    reader.feed(std::string_view(row.body).substr(at, piece));
  }
  if (row.state != State::done) content.resize(row.content.size());
  EXPECT_EQ(reader.state(), row.state) << row.why << piece;
  EXPECT_EQ(reader.fileName(), row.name) << row.why << piece;
  EXPECT_EQ(content, row.content) << row.why << piece;
}

TEST(multipart, firstFileIsFoundHoweverTheBytesAreCut) {
  for (const FormRow& row : kForms) {
    for (const std::size_t piece : {1U, 2U, 3U, 7U, 100000U}) check(row, piece);
  }
}

}  // namespace backend_test
