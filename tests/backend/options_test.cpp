#include "backend/options.h"

#include <gtest/gtest.h>

#include "backend/property_sets.h"
#include "backend/session_id.h"

namespace backend_test {

using backend::Options;

static backend::ParseResult parse(std::vector<const char*> arguments, Options& options) {
  arguments.insert(arguments.begin(), "vesk-backend");
  return backend::parseOptions(static_cast<int>(arguments.size()), arguments.data(),
                               options);
}

// What the options come to, as the property sets and the pages tell it.
static std::string outcome(std::vector<const char*> arguments) {
  Options options{};
  EXPECT_TRUE(parse(std::move(arguments), options).run);
  return backend::serverProps(options) + backend::servletMappings(options) +
         backend::buddyText(options.buddies) +
         std::to_string(options.loadValue.value_or(1234));
}

TEST(options, givenOnesReplaceTheDefaults) {
  EXPECT_EQ(outcome({"--listen=127.0.0.1:0", "--rep-id=A001"}),
            "mapcheck=10\nproxyretryinterval=10\nweight=1\nalgorithm=ROUNDROBIN\n"
            "sticky=true\nrep_id=A001\n/demo/*=demo\n*.jsp=demo\n****1234");
  EXPECT_EQ(outcome({"--listen=1.2.3.4:80", "--mapping", "/a/*=x=y",
                     "--mapping=*.do=", R"(--mapping=/a\b=c\d)", "--sticky", "false",
                     "--weight", "-3", "--load-value=4000000000", "--buddies=B002,C003"}),
            "mapcheck=10\nproxyretryinterval=10\nweight=-3\nalgorithm=ROUNDROBIN\n"
            "sticky=false\nrep_id=\n/a/*=x=y\n*.do=\n/a\\b=c\\\\d\n"
            "B002C0034000000000")
      << "a backslash is doubled in a value alone";
}

static void expectRefused(const std::vector<const char*>& arguments) {
  Options options{};
  const backend::ParseResult result = parse(arguments, options);
  EXPECT_FALSE(result.run) << testing::PrintToString(arguments);
  EXPECT_EQ(result.exitStatus, 2) << testing::PrintToString(arguments);
}

TEST(options, badOnesEndWithStatusTwo) {
  expectRefused({});
  for (const char* bad :
       {"--listen=127.0.0.1", "--listen=localhost:7001", "--listen=127.0.0.1:65536",
        "--listen=127.0.0.1:-1", "--listen=127.0.0.1:"}) {
    expectRefused({bad});
  }
  for (const char* bad :
       {"--algorithm=roundrobin", "--sticky=maybe", "--weight=2147483648", "--weight=1x",
        "--mapcheck=-1", "--load-value=-1", "--rep-id=abc", "--rep-id=aTRb",
        "--rep-id=a;bc", "--buddies=B002,x", "--mapping=/demo", "--mapping==demo",
        "--mapping=#a=demo", "--mapping=/a\n=demo", "--unknown", "stray"}) {
    expectRefused({"--listen=1.2.3.4:1", bad});
  }
}

}  // namespace backend_test
