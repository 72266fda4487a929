// A request on the host layer whose memory fails on demand.
//
// The layer is the one that ships; between it and the connector stands its own
// dispatch table with other entries for memory and for insertions, which count and
// fail. One at a time: making it puts that table behind __nsapi30_table and runs the
// request on this thread.
#pragma once

#include <cstdint>
#include <string>

#include "layer/request.h"
#include "support/fake_exchange.h"

class FailingHost {
 public:
  FailingHost();
  ~FailingHost();  // fails the test if permanent memory is still out
  FailingHost(const FailingHost&) = delete;
  FailingHost& operator=(const FailingHost&) = delete;

  // All values of a name, joined by '|'; "-" for none.
  [[nodiscard]] static std::string get(const pblock* block, const char* name);
  // Makes `value` the only one of a name; null leaves none.
  static void set(pblock* block, const char* name, const char* value);

  FakeExchange client;
  host::HostRequest request;

  // The call of this number from now on fails; 0: none does.
  std::int64_t failAllocation = 0;
  std::int64_t failInsertion = 0;
  bool failsForGood = false;    // so do all insertions behind it
  bool insertsInFront = false;  // new parameters go to the front of their block
  std::int64_t poolBlocks = 0;  // given out by the functions of the table, not yet back
  std::int64_t permBlocks = 0;
  int criticalSections = 0;  // made

 private:
  host::RunningRequest running_{&request};
};
