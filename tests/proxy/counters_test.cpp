// Counts are right, add up over processes, and outlive them.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "context/request_setup.h"
#include "proxy/counter_board.h"

static std::unique_ptr<serverCounters> counted(
    std::initializer_list<std::int64_t> times) {
  auto counters = std::make_unique<serverCounters>();
  for (const std::int64_t micros : times)
    countAttempt(
        counters.get(),
        {.served = true, .cause = '-', .first = true, .micros = micros, .second = 1000});
  return counters;
}

TEST(serverCounters, quantilesAreWithinAQuarterAndNeverBelow) {
  for (const std::int64_t micros :
       {0L, 1L, 4L, 5L, 7L, 8L, 9L, 100L, 1023L, 1024L, 1025L, 999999L, 60000000L}) {
    const auto counters = counted({micros});
    const std::int64_t quantile = timeQuantile(*counters, 500);
    EXPECT_GE(quantile, micros);
    EXPECT_LE(quantile, std::max(4L, micros + micros / 4)) << micros;
  }
  const auto counters =
      counted({100, 200, 400, 800, 1600, 3200, 6400, 12800, 25600, 51200});
  EXPECT_NEAR(static_cast<double>(timeQuantile(*counters, 500)), 1600, 400);
  EXPECT_NEAR(static_cast<double>(timeQuantile(*counters, 900)), 25600, 6400);
  EXPECT_EQ(timeQuantile(*counted({}), 990), 0);
}

TEST(serverCounters, bucketsHoldTheirBoundAndTheLongestTimes) {
  const auto counters = counted({256, 257, 1LL << 26, 1LL << 40});
  EXPECT_EQ(servedWithin(*counters, 8), 1);
  EXPECT_EQ(servedWithin(*counters, 9), 2);
  EXPECT_EQ(servedWithin(*counters, 26), 3);
  EXPECT_EQ(counters->served, 4);
}

TEST(serverCounters, failuresGoByTheirLetterAndUnknownOnesToOther) {
  serverCounters counters{};
  for (const char cause : {'R', 'T', 'O', '?', '\0'})
    countAttempt(&counters, {.served = false,
                             .cause = cause,
                             .first = cause == 'R',
                             .micros = 1,
                             .second = 1000});
  EXPECT_EQ(counters.errors[0], 1);
  EXPECT_EQ(counters.errors[1], 1);
  EXPECT_EQ(counters.errors[kErrorKinds - 1], 3);
  EXPECT_EQ(counters.takenOver, 4);
  EXPECT_EQ(counters.served, 0);
}

TEST(serverCounters, trendForgetsWhatIsFiveMinutesOld) {
  const auto counters = counted({1, 1});
  std::uint32_t counts[kTrendSlots];
  readTrend(counters->trend, 1000, counts);
  EXPECT_EQ(counts[kTrendSlots - 1], 2U);
  readTrend(counters->trend, 1000 + 290, counts);
  EXPECT_EQ(counts[0], 2U);
  readTrend(counters->trend, 1000 + 300, counts);
  for (const std::uint32_t count : counts) EXPECT_EQ(count, 0U);
  countAttempt(
      counters.get(),
      {.served = true, .cause = '-', .first = true, .micros = 1, .second = 1300});
  readTrend(counters->trend, 1300, counts);
  EXPECT_EQ(counts[kTrendSlots - 1], 1U);
}

class CounterBoard : public testing::Test {
 protected:
  CounterBoard() {
    init_vesk_request(&req_);
  }
  ~CounterBoard() override {
    closeBoard();
    if (memory_ >= 0) close(memory_);
  }
  void share(off_t size) {
    memory_ = memfd_create("counts", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(memory_, size), 0);
  }

  vesk_request req_;
  int memory_ = -1;
};

TEST_F(CounterBoard, sharedCountsOutliveAProcessAndAddUp) {
  share(sizeof(counterBoard));
  openBoard(&req_, memory_);
  ASSERT_TRUE(isBoardShared());
  ++findBoardServer(&req_, "10.0.0.1:7001")->counters.served;
  ++*findBoardMapping("/shop*");
  setDrained(getBoard(), findBoardServer(&req_, "10.0.0.2:7001"), true);
  char token[kBoardTokenSize] = "";
  ASSERT_TRUE(getBoardToken(getBoard(), token));
  closeBoard();

  openBoard(&req_, memory_);
  EXPECT_EQ(countProcesses(getBoard()), 1);
  EXPECT_EQ(findBoardServer(&req_, "10.0.0.1:7001")->counters.served, 1);
  EXPECT_EQ(*findBoardMapping("/shop*"), 1);
  EXPECT_EQ(*findBoardMapping("/shop"), 0);
  EXPECT_TRUE(isDrained(findBoardServer(&req_, "10.0.0.2:7001")));
  EXPECT_TRUE(anyDrained());
  char again[kBoardTokenSize] = "";
  ASSERT_TRUE(getBoardToken(getBoard(), again));
  EXPECT_STREQ(token, again);
}

TEST_F(CounterBoard, memoryThatDoesNotFitIsLeftAlone) {
  share(sizeof(counterBoard) - 1);
  openBoard(&req_, memory_);
  EXPECT_FALSE(isBoardShared());
  ++findBoardServer(&req_, "10.0.0.1:7001")->counters.served;
  closeBoard();

  ASSERT_EQ(ftruncate(memory_, sizeof(counterBoard)), 0);
  constexpr std::uint64_t kOtherLayout = 1;
  ASSERT_EQ(pwrite(memory_, &kOtherLayout, sizeof kOtherLayout, 0), 8);
  openBoard(&req_, memory_);
  EXPECT_FALSE(isBoardShared());
  closeBoard();
  openBoard(&req_, 9999);  // no such descriptor
  EXPECT_FALSE(isBoardShared());
  ASSERT_NE(getBoard(), nullptr);
}

TEST_F(CounterBoard, fullBoardGivesNoPlace) {
  openBoard(&req_, -1);
  for (std::int32_t i = 0; i < kBoardServers; ++i)
    ASSERT_NE(findBoardServer(&req_, ("10.0.0.1:" + std::to_string(i)).c_str()), nullptr);
  EXPECT_EQ(findBoardServer(&req_, "10.0.0.2:1"), nullptr);
  EXPECT_NE(findBoardServer(&req_, "10.0.0.1:5"), nullptr);
  EXPECT_EQ(knownBoardServer("10.0.0.2:1"), nullptr);
  EXPECT_FALSE(isDrained(nullptr));
}
