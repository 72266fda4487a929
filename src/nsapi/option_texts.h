// The options of the Init line as they are in force, for the status page.
//
// Ownership: the texts are the record's own or the host's, and the record is the
// caller's. Threads: any; what is read was written before the first request.
// Failure: none; what doesn't fit is cut.
#pragma once

#include "maptable/vesk_maptable_impl.h"
#include "status/status_snapshot.h"

constexpr std::int32_t kOptionRows = 20;
constexpr std::int32_t kOptionTextSize = 256;

struct OptionTexts {
  statusOption rows[kOptionRows];
  std::int32_t count;
  char texts[kOptionRows][kOptionTextSize];
};

// `table` may be null.
void describeOptions(const mappingsTable* table, OptionTexts* options);
