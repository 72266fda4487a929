// What others have sent ends no place of a page, and what a browser asks is read as it
// was meant.
#include <gtest/gtest.h>

#include <string>

#include "context/request_setup.h"
#include "status/query_text.h"
#include "status/text_buffer.h"

static std::string written(void (*write)(TextBuffer*, std::string_view),
                           std::string_view foreign) {
  vesk_request req;
  init_vesk_request(&req);
  TextBuffer text = newText(&req);
  write(&text, foreign);
  std::string result(text.bytes ? text.bytes : "", static_cast<std::size_t>(text.length));
  freeText(&text);
  return result;
}

TEST(textBuffer, foreignTextEndsNoPlace) {
  const struct {
    void (*write)(TextBuffer*, std::string_view);
    std::string_view foreign;
    std::string_view expected;
  } kRows[] = {
      {addHtml, "<a href=\"x\" b='y'>&",
       "&lt;a href=&quot;x&quot; b=&#39;y&#39;&gt;&amp;"},
      {addHtml, "a\r\n\x1b[0m\x7f", "a???[0m?"},
      {addHtml, "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x99\x82",
       "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x99\x82"},
      // Cut, longer than need be, halves of pairs, above the last, C1, lone.
      {addHtml, "\xe2\x82", "??"},
      {addHtml, "\xc0\xaf\xe0\x80\xaf\xed\xa0\x80", "????????"},
      {addHtml, "\xf4\x90\x80\x80\xc2\x85\xff", "???????"},
      {addJson, "a\"b\\c\nd", "\"a\\\"b\\\\c?d\""},
      {addLabel, "a\"b\\c\n", "\"a\\\"b\\\\c?\""},
      {addCell, "plain", "plain"},
      {addCell, "=1+1", "'=1+1"},
      {addCell, "a,\"b\"\n", "\"a,\"\"b\"\"?\""},
  };
  for (const auto& row : kRows) EXPECT_EQ(written(row.write, row.foreign), row.expected);
}

TEST(textBuffer, withoutMemoryItFailsAndKeepsWhatItHas) {
  vesk_request req;
  init_vesk_request(&req);
  TextBuffer text = newText(&req);
  add(&text, "before");
  req.malloc = [](vesk_request*, std::int32_t) -> void* { return nullptr; };
  add(&text, std::string(100000, 'x'));
  EXPECT_TRUE(text.failed);
  EXPECT_EQ(text.length, 6);
  freeText(&text);
}

TEST(queryText, valuesAreDecodedOrRefused) {
  const struct {
    std::string_view query;
    bool found;
    std::string_view value;
  } kRows[] = {
      {"url=/a%2Fb+c", true, "/a/b c"},
      {"x=1&url=%c3%BC&url=2", true, "\xc3\xbc"},
      {"url=", true, ""},
      {"aurl=1&ur=2", false, ""},
      {"url", false, ""},
      {"", false, ""},
      {"url=%", false, ""},
      {"url=%4", false, ""},
      {"url=%zz", false, ""},
      {"url=a%00b", false, ""},
      {"url=123456789", false, ""},  // doesn't fit
      {"url=12345678", true, "12345678"},
      {"&&url=1&", true, "1"},
  };
  for (const auto& row : kRows) {
    char value[9] = "";
    EXPECT_EQ(readQuery(row.query, "url", value, sizeof value), row.found) << row.query;
    if (row.found) {
      EXPECT_EQ(value, row.value);
    }
  }
}
