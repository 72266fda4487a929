// Blocks of a response body that came together leave together.
//
// A server sends its answer in blocks of a few KiB, and many of them wait whole in the
// read-ahead by the time the first is read. Written one by one each costs the web server
// a system call; as one run they cost one for all. A block that is alone leaves alone:
// nothing is ever waited for, so that a browser sees what a server has flushed at once.
//
// Ownership: a run owns the block that found no room in the read-ahead, no other bytes.
// Threads: the request's own. For locals only. Failure: null bytes, with lastError of the
// request as readData leaves it. Units: bytes.
#pragma once

#include "proxy/conversation.h"

struct BodyRun {
  // Reads the block of a PROXY_PUT_CLIENT in hand, and takes all those that wait whole
  // behind it, commands included. Blocks for the first alone.
  explicit BodyRun(Conversation* conversation);
  ~BodyRun();
  BodyRun(const BodyRun&) = delete;
  BodyRun& operator=(const BodyRun&) = delete;

  Conversation* talk;
  // In the read-ahead, or in `owned`; valid until the next read. Null when the first
  // block can't be read.
  char* bytes;
  std::int32_t length;  // of all blocks
  std::int32_t blocks;
  char* owned;
};
