#include "backend/property_sets.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

namespace backend_test {

// A backslash is doubled in a value alone, and a key may begin with "=".
TEST(propertySets, lineHoldsWhatIsReadBack) {
  std::string text;
  const std::pair<std::string, std::string> good[] = {
      {"k", "v"},     {"k", "a\\b\\"}, {"k", "1.2.3.4:5=6"}, {"k", ""},
      {" k ", " v "}, {"=k", "v"},     {"a\\b", "v"}};
  for (const auto& [key, value] : good) backend::appendProperty(text, key, value);
  EXPECT_EQ(text, "k=v\nk=a\\\\b\\\\\nk=1.2.3.4:5=6\nk=\n k = v \n=k=v\na\\b=v\n");
  const std::pair<std::string, std::string> bad[] = {
      {"", ""},     {"#k", ""},    {"\x1ak", ""},           {"a=b", ""},
      {"a\nb", ""}, {"k", "a\rb"}, {"k", std::string(1, 0)}};
  for (const auto& [key, value] : bad) {
    EXPECT_THROW(backend::appendProperty(text, key, value), std::invalid_argument) << key;
  }
}

}  // namespace backend_test
