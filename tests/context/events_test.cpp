#include "context/events.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tuple>
#include <vector>

#include "context/held_requests.h"
#include "context/vesk_error.h"
#include "support/recorded_request.h"

TEST(eventText, peersCannotLeaveTheirPlaceInALine) {
  const std::string longName(300, 'x');
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"/a b", "/a?b", "/a?b"},
      {"/a\n\x1b[2J\x7f\x9b\xc3\xa4", "/a??[2J????", "/a??[2J????"},
      {"", "-", "-"},
      {"/a;v=1/b?pw=x#y", "/a;v=1/b?pw=x#y", "/a"},
      {"?pw", "?pw", "-"},
      {longName, std::string(124, 'x') + "...", std::string(124, 'x') + "..."},
  };
  for (const auto& [sent, text, path] : rows) {
    EventText line;
    clearText(&line);
    addPeerText(&line, sent.c_str());
    EXPECT_EQ(line.text, text);
    clearText(&line);
    addPath(&line, sent.c_str());
    EXPECT_EQ(line.text, path);
  }
}

TEST(eventText, timesAndErrorsAreShort) {
  const std::tuple<std::int64_t, std::int32_t, const char*> rows[] = {
      {-1, ECONNREFUSED, "0s refused"},   {59, EHOSTUNREACH, "59s unreachable"},
      {60, ETIMEDOUT, "1m0s timed out"},  {11520, EPIPE, "3h12m reset"},
      {86399, EVESK_BUSY, "23h59m busy"}, {187200, 0, "2d4h protocol broken"},
      {3, EACCES, "3s error 13"},
  };
  for (const auto& [seconds, error, text] : rows) {
    EventText line;
    clearText(&line);
    addDuration(&line, seconds);
    addText(&line, " ");
    addError(&line, error);
    EXPECT_STREQ(line.text, text);
  }
}

TEST(eventText, itemsThatDontFitAreCounted) {
  EventText line;
  clearText(&line);
  for (int i = 0; i < 100; ++i) addItem(&line, '+', "10.0.0.1:7001");
  endItems(&line);
  const std::string text = line.text;
  EXPECT_TRUE(text.ends_with(" +10.0.0.1:7001 and 79 more")) << text;
}

static std::int64_t testTicks;

// A request with a clock that only the test moves, and the lines switched on.
class Events : public testing::Test {
 protected:
  Events() {
    testTicks = 5000;
    t.req->ticks = [](vesk_request*) { return testTicks; };
    t.req->now = [](vesk_request*) { return testTicks / 1000; };
    openEvents(t.req);
  }
  ~Events() override {
    closeEvents(t.req);
    EXPECT_EQ(t.permBlocks, 0);
    EXPECT_FALSE(eventsWait());
  }
  void report(const char* subject, const std::string& words) {
    EventText line;
    clearText(&line);
    addText(&line, "%s", words.c_str());
    reportEvent(t.req, EventKind::server, subject, line);
  }
  // After a time in milliseconds.
  std::vector<std::string> linesAfter(int pause) {
    testTicks += pause;
    if (eventsWait()) lookAtEvents(t.req);
    return std::exchange(t.logLines, {});
  }
  using Lines = std::vector<std::string>;
  RecordedRequest t;
};

TEST_F(Events, newestOfASecondIsToldWhenThatIsOver) {
  report("a", "a down");
  report("b", "b down");
  EXPECT_EQ(linesAfter(0), Lines({"a down", "b down"}));
  for (const char* words : {"a up", "a down again", "a up again"}) report("a", words);
  EXPECT_EQ(linesAfter(999), Lines({}));
  EXPECT_EQ(linesAfter(1), Lines({"a up again (2 more in between)"}));
  EXPECT_FALSE(eventsWait());
  report("a", "a held");
  testTicks += 1000;
  report("a", "a next");  // nobody has looked meanwhile
  EXPECT_EQ(linesAfter(0), Lines({"a next (1 more in between)"}));
  report("a", "JSESSIONID=0123456789abc of a");
  EXPECT_EQ(linesAfter(1000), Lines({"JSESSIONID=01234567... of a"}));
}

TEST_F(Events, journalKeepsTheLastAndAnEndWritesWhatIsHeld) {
  for (int i = 0; i < 300; ++i, testTicks += 1000) report("a", std::to_string(i));
  std::vector<veskEvent> kept(kJournalSize + 1);
  ASSERT_EQ(copyEvents(kept.data(), kJournalSize + 1), kJournalSize);
  EXPECT_STREQ(kept[0].text, "44");
  EXPECT_STREQ(kept[255].text, "299");
  EXPECT_EQ(kept[255].time, 304);
  ASSERT_EQ(copyEvents(kept.data(), 2), 2);
  EXPECT_STREQ(kept[0].text, "298");
  testTicks -= 1000;
  report("a", "held");
  t.logLines.clear();
  closeEvents(t.req);
  EXPECT_EQ(t.logLines, Lines({"held"}));
  report("a", "off");
  EXPECT_EQ(copyEvents(kept.data(), 2), 0);
  EXPECT_EQ(t.logLines.size(), 1);
}

TEST_F(Events, moreThingsThanThereIsRoomForAreCounted) {
  for (int i = 0; i < 300; ++i) report(std::to_string(i).c_str(), "down");
  EXPECT_EQ(linesAfter(0).size(), 256);
  EXPECT_EQ(linesAfter(1000), Lines({"vesk events: 44 lines left out"}));
  for (int i = 0; i < 300; ++i) report(std::to_string(i).c_str(), "left at the end");
}

TEST_F(Events, withoutMemoryThereAreNone) {
  t.failAllocation = t.allocations + 1;
  openEvents(t.req);
  report("a", "a down");
  EXPECT_EQ(t.logged("a down"), 0);
  EXPECT_FALSE(eventsOn());
}

// The requests are scopes of one thread here: what they wait for is played by their
// order.
TEST_F(Events, questionTellsWhomItHoldsUp) {
  const auto busy = [](const std::string& words) {
    return Lines({"vesk table busy: refresh of a:1 holds " + words});
  };
  WaitingRequest early(t.req);
  {
    const QuestionScope nobodyWaits(t.req, "a:1");
    EXPECT_FALSE(eventsWait());
  }
  {
    const HoldsTable holds(t.req, true);
    const QuestionScope question(t.req, "a:1");
    const QuestionScope within(t.req, "b:1");
    WaitingRequest first(t.req);
    EXPECT_EQ(linesAfter(1000), Lines({}));
    WaitingRequest second(t.req);
    EXPECT_EQ(linesAfter(0), busy("2 requests for 1s"));
    second.pass();
    EXPECT_EQ(linesAfter(4000), Lines({}));
  }
  EXPECT_EQ(linesAfter(0), busy("2 requests for 5s"));
  early.pass();  // it has waited since before the question
  EXPECT_EQ(linesAfter(1000), busy("3 requests for 5s"));
  { const WaitingRequest next(t.req); }
  EXPECT_FALSE(eventsWait());
}
