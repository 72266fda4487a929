#include "context/vesk_mutex.h"

#include <gtest/gtest.h>

#include "support/recorded_request.h"

// A host whose critical sections only leave a trace.
static std::string calls;
static int section;
static void hostEnter(void* lock) {
  calls += lock == &section ? "enter " : "wrong ";
}
static void hostExit(void* lock) {
  calls += lock == &section ? "exit " : "wrong ";
}

TEST(hostLock, isReachedAndReportedWhenBrokenOrMissing) {
  const LockOperations host = {
      .init = []() -> void* { return &section; }, .enter = hostEnter, .exit = hostExit};
  const LockOperations poor = {
      .init = []() -> void* { return nullptr; }, .enter = hostEnter, .exit = hostExit};
  RecordedRequest t;
  void* lock = nullptr;
  std::int32_t held = 7;

  installLockOperations(&host);
  initSync(t.req, &lock, &held);
  EXPECT_EQ(held, 0);
  held = 1;
  startSync(t.req, &lock, &held);
  stopSync(t.req, &lock, &held);
  stopSync(t.req, &lock, &held);
  held = 1;
  startSync(nullptr, &lock, &held);
  EXPECT_EQ(held, 1);

  installLockOperations(&poor);
  initSync(t.req, &lock, &held);
  EXPECT_EQ(lock, nullptr);
  startSync(t.req, &lock, &held);
  stopSync(t.req, &lock, &held);
  installLockOperations(nullptr);

  EXPECT_EQ(calls, "enter exit exit enter ");
  EXPECT_EQ(t.all(),
            "log: startSync - detected broken mutex!\n"
            "log: stopSync - detected broken mutex!\n"
            "log: initSync - the host gave no lock!\n");
}
