#include "backend/text.h"

#include <gmock/gmock.h>

#include "backend/pages/query.h"
#include "backend/wire/protocol.h"

namespace backend_test {

// A lead byte alone and one cut off, overlong forms, a surrogate, a code point
// beyond the last.
TEST(escape, textThatIsNotUtf8BecomesTheCharactersOfItsBytes) {
  const std::pair<std::string, std::string> rows[] = {
      {"plain", "plain"},
      {"\xe4", "\xc3\xa4"},
      {"\xc3", "\xc3\x83"},
      {"\xc0\x80", "\xc3\x80\xc2\x80"},
      {"a\x80z", "a\xc2\x80z"},
      {"\xe0\x9f\xbf", "\xc3\xa0\xc2\x9f\xc2\xbf"},
      {"\xed\xa0\x80", "\xc3\xad\xc2\xa0\xc2\x80"},
      {"\xf4\x90\x80\x80", "\xc3\xb4\xc2\x90\xc2\x80\xc2\x80"},
      {"\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"}};
  for (const auto& [given, wanted] : rows) EXPECT_EQ(backend::asUtf8(given), wanted);
}

TEST(escape, htmlCannotBreakOut) {
  EXPECT_EQ(backend::htmlOf("<a b=\"c\" d='e'>&\n"),
            "&lt;a b=&quot;c&quot; d=&#39;e&#39;&gt;&amp;\xef\xbf\xbd");
}

TEST(query, pairsAreDecoded) {
  std::string text;
  for (const auto& [name, value] :
       backend::parseQuery("a=1&b=x%20y+z&&c&a=2&%3d=%zz%4&d==%41")) {
    text.append(name).append(":").append(value).append("|");
  }
  EXPECT_EQ(text, "a:1|b:x y z|c:|a:2|=:%zz%4|d:=A|");
}

TEST(query, numbersAreWholeAndInRange) {
  const auto number = [](const char* query) {
    return backend::numberOf(backend::parseQuery(query), "n", {0, 10, 7});
  };
  EXPECT_THAT((std::vector{number("n=0"), number("n=10"), number(""), number("n=")}),
              testing::ElementsAre(0, 10, 7, 7));
  for (const char* bad :
       {"n=11", "n=-1", "n=5x", "n=+5", "n=0x5", "n=99999999999999999999"}) {
    EXPECT_THROW((void)number(bad), backend::BadRequest) << bad;
  }
}

}  // namespace backend_test
