#include "layer/option_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>

namespace host {
namespace {

using testing::HasSubstr;

Directive line(const std::string& where, const std::string& text) {
  Directive directive{where, {}};
  EXPECT_EQ(parseParameters(text, &directive), "");
  return directive;
}

struct OptionRow {
  const char* option;
  const char* said;  // with a '!' in front: the line is refused
};

const OptionRow kOptionRows[] = {
    {"connecttimeout=15 recvtimeout=-1 proxyretryinterval=0 idletimeout=0", ""},
    {"verbose=true metrics=false apialloc=TRUE traceflags=0x1F errorurl=/down", ""},
    {"guards=none", ""},
    {"guards=all,-idle", ""},
    {"guards=idle,All", "!guards: unknown name \"All\"; known are all, none, latebytes"},
    {"bootsrap=1", "unknown option \"bootsrap\"; did you mean \"bootstrap\"?"},
    {"Verbose=true", "unknown option \"Verbose\"; did you mean \"verbose\"?"},
    {"colour=1", "unknown option \"colour\""},
    {"connecttimeout=500ms", "connecttimeout: \"500ms\" is no number of seconds"},
    {"sendtimeout=-2", "sendtimeout: \"-2\" is not from -1 to 2147483"},
    {"recvtimeout=0", "recvtimeout: 0 leaves no time at all"},
    {"recvtimeout=30000", "\"30000\" counts seconds, and looks like milliseconds"},
    {"maxperserver=many", "maxperserver: \"many\" is no number"},
    {"verbose=True", "verbose: \"True\" means off: the word is true, in lower case"},
    {"metrics=yes", "metrics: \"yes\" means off; true means on"},
    {"apialloc=1", "apialloc: \"1\" is neither true nor false"},
    {"traceflags=xyz", "traceflags: \"xyz\" is no hexadecimal number"},
    {"bootstrap=10.0.0.1", "\"10.0.0.1\" has no port; it must be ip:port"},
    {"bootstrap=10.0.0.1:70000", "has no port from 1 to 65535"},
    {"bootstrap=app:7001", "must begin with an address such as 10.0.0.1"},
    {"bootstrap=http://10.0.0.1:7001", "is a URL; it must be ip:port"},
    {"bootstrap=10.0.0.1:1,10.0.0.2:1", "must be one address"},
    {"errorurl=down.html", "is neither a URL with http:// or https:// nor a path"},
};

TEST(options, whatCannotBeMeantIsToldWithItsPlace) {
  for (const OptionRow& row : kOptionRows) {
    std::string text = std::string("fn=veskinit ") + row.option;
    if (text.find("guards") == text.npos) text += " guards=all";
    if (text.find("bootstrap=") == text.npos) text += " bootstrap=10.0.0.1:7001";
    std::string said;
    for (const Finding& one : checkOptions(line("f:3", text))) {
      EXPECT_EQ(one.where, "f:3");
      said += (one.refuses ? "!" : "") + one.text;
    }
    const bool quiet = row.said[0] == '\0';
    EXPECT_THAT(said, HasSubstr(row.said));
    EXPECT_EQ(said.empty(), quiet) << text << ": " << said;
  }
  EXPECT_TRUE(checkOptions(line("f:3", "fn=other guards=x")).empty());
}

struct LinesRow {
  std::vector<std::pair<Stage, const char*>> stages;
  std::vector<const char*> inits;
  const char* said;  // of each finding, what is worth a look
};

const char kInit[] = "fn=veskinit guards=all bootstrap=10.0.0.1:7001";
const std::pair<Stage, const char*> kFilter{Stage::objectType, "fn=veskfilter"};
const std::pair<Stage, const char*> kServe{Stage::service,
                                           "fn=veskservice type=vesk-internal/*"};

#define PAGE "fn=veskservice report=status"

const LinesRow kLinesRows[] = {
    {{kFilter, kServe}, {kInit}, ""},
    {{}, {"fn=other"}, ""},
    {{kServe}, {kInit}, "i0: no ObjectType line"},
    {{kFilter}, {kInit}, "i0: no Service line"},
    {{kFilter, {Stage::service, "fn=veskservice type=vesk-internal/ext"}},
     {kInit},
     "i0: no Service line"},
    {{kFilter, {Stage::service, "fn=veskservice"}}, {kInit}, ""},
    {{kFilter,
      kServe,
      {Stage::service, PAGE " path=/s from=local actions=on method=GET"}},
     {kInit},
     ""},
    {{kFilter, {Stage::service, PAGE}}, {kInit}, "i0: no Service line"},
    {{kFilter, kServe, {Stage::service, PAGE " actions=yes"}},
     {kInit},
     "s2: actions: \"yes\" means nothing, only \"on\" does"},
    {{kFilter, kServe, {Stage::service, PAGE " form=local"}},
     {kInit},
     "s2: unknown option \"form\" of the status page; it has report, path, from"},
    {{kFilter, kServe, {Stage::service, PAGE " path=status"}},
     {kInit},
     "s2: path: \"status\" begins with no /"},
    {{kFilter, kServe, {Stage::service, "fn=veskservice report=Status"}},
     {kInit},
     "s2: report: \"Status\" means nothing, only \"status\" does"},
    {{kFilter, kServe}, {kInit, kInit}, "i1: veskinit stands in i0 already"},
    {{{Stage::objectType, "fn=veskfilter verbose=true"}, kServe},
     {kInit},
     "s0: verbose is an option of veskinit"},
    {{kFilter, kServe},
     {"fn=veskinit bootstrap=10.0.0.1:1"},
     "i0: veskinit without guards"},
    {{kFilter, kServe},
     {"fn=veskinit guards=all"},
     "i0: neither bootstrap nor serverstore"},
    {{kFilter, kServe},
     {"fn=veskinit guards=all serverstore=/no/such/store"},
     "i0: serverstore: there is no folder /no/such"},
    {{kFilter, kServe},
     {"fn=veskinit guards=all serverstore=/proc/store"},
     "i0: serverstore: user 12345 may not write /proc/store"},
    {{kFilter, kServe},
     {"fn=veskinit guards=all serverstore=/etc/passwd"},
     "i0: serverstore: /etc/passwd has no line proxyservers="},
    {{kFilter, kServe},
     {"fn=veskinit guards=all serverstore=servers.store"},
     "i0: serverstore: \"servers.store\" counts from the folder"},
};

TEST(options, linesAreJudgedTogether) {
  for (const LinesRow& row : kLinesRows) {
    std::deque<Directive> kept;
    CheckedLines lines{{}, {}, 12345, 12345, true};
    for (const char* text : row.inits) {
      kept.push_back(line("i" + std::to_string(lines.inits.size()), text));
      lines.inits.push_back(&kept.back());
    }
    for (const auto& [stage, text] : row.stages) {
      kept.push_back(line("s" + std::to_string(lines.stages.size()), text));
      lines.stages.emplace_back(stage, &kept.back());
    }
    const std::vector<Finding> found = checkLines(lines);
    const std::string said = row.said;
    ASSERT_EQ(found.size(), said.empty() ? 0U : 1U) << said;
    for (const Finding& one : found) {
      EXPECT_THAT(one.where + ": " + one.text, testing::StartsWith(said));
    }
  }
}

TEST(options, aWebServerMayBeTooOld) {
  EXPECT_EQ(judgeRelease("httpd", {2, 5, 0}, {2, 4, 48}), "");
  EXPECT_EQ(judgeRelease("httpd", {2, 4, 48}, {2, 4, 48}), "");
  EXPECT_EQ(judgeRelease("httpd", {2, 4, 47}, {2, 4, 48}),
            "httpd 2.4.47 is too old: it must be 2.4.48 or newer");
}

}  // namespace
}  // namespace host
