#include "context/spelling.h"

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "context/text.h"
#include "support/recorded_request.h"

TEST(spelling, convertsInPlaceAndIntoTheFourForms) {
  char text[] = "a-b-c";
  EXPECT_EQ(fromDashesToUnderscores(nullptr, text), 1);
  EXPECT_EQ(fromDashesToUnderscores(nullptr, text), 0);
  EXPECT_EQ(fromUnderscoresToDashes(nullptr, text), 1);
  EXPECT_STREQ(text, "a-b-c");
  EXPECT_EQ(fromUnderscoresToDashes(nullptr, nullptr), 0);

  using Convert = void (*)(vesk_request*, const char*, char*);
  const std::tuple<Convert, std::string, const char*> rows[] = {
      {toUpperCaseWithUnderscores, "content-Type_\xE4", "CONTENT_TYPE_\xE4"},
      {toUpperCaseWithDashes, "content-Type_9", "CONTENT-TYPE-9"},
      {toLowerCaseWithDashes, "CONTENT_Type-9", "content-type-9"},
      {toLowerCaseWithUnderscores, "CONTENT_Type-9", "content_type_9"},
  };
  for (const auto& [convert, in, expected] : rows) {
    std::string out(in.size() + 1, '?');
    convert(nullptr, in.c_str(), out.data());
    EXPECT_STREQ(out.c_str(), expected);
  }
}

TEST(encodePercentage, replacesTheUriOnlyWhenThereIsOne) {
  RecordedRequest t;
  for (const auto& [uri, encoded] : {std::pair{"/a%20b", "/a%2520b"}, {"%%", "%25%25"}}) {
    t.req->uri = uri;
    char* made = EncodePercentage(t.req);
    EXPECT_STREQ(made, encoded);
    EXPECT_EQ(t.req->uri, made);
    t.req->free(t.req, made);
  }
  t.failAllocation = t.allocations + 1;
  for (const char* uri : {"/ab", "", "/a%20b"}) {
    t.req->uri = uri;
    EXPECT_EQ(EncodePercentage(t.req), nullptr);
    EXPECT_EQ(t.req->uri, uri);
  }
}

TEST(hexstrtol, takesWhollyHexadecimalText) {
  std::string numbers;
  for (const char* text : {"ff", "ffz", "0x10", "", " 7", "-1", "FFFFFFFF", "7 ", "0x",
                           "ffffffffffffffffff"})
    numbers += std::to_string(hexstrtol(text)) + " ";
  EXPECT_EQ(numbers, "255 0 16 0 7 -1 4294967295 0 0 9223372036854775807 ");
  EXPECT_EQ(hexstrtol(nullptr), 0);
}
