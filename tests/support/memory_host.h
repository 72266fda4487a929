// A web server in memory: the dispatch table that the connector calls, with
// parameter blocks, two kinds of memory, and failures on demand.
//
// One at a time: making it installs it behind __nsapi30_table. Fields before the
// call say what the host has, fields after it what the connector did.
#pragma once

#include <nsapi.h>

#include <cstdint>
#include <string>
#include <vector>

class MemoryHost {
 public:
  MemoryHost();
  ~MemoryHost();  // fails the test if permanent memory is still out
  MemoryHost(const MemoryHost&) = delete;
  MemoryHost& operator=(const MemoryHost&) = delete;

  // Of the parameter blocks: adds a value; all values of a name, joined by '|'
  // ("-" for none); and the whole block as `name="value" ...`.
  static void put(pblock* block, const char* name, const char* value);
  [[nodiscard]] static std::string get(const pblock* block, const char* name);
  [[nodiscard]] static std::string all(const pblock* block);

  // Lines that contain `part`. Each is "degree|function|text".
  [[nodiscard]] int logged(const std::string& part) const;
  [[nodiscard]] std::string lines() const;

  // Blocks of five buckets, so that their order isn't that of insertion.
  pblock* initBlock;
  pblock* vars;
  pblock* reqpb;
  pblock* headers;
  pblock* srvhdrs;
  pblock* client;
  netbuf input{};
  Session session{};
  Request request{};
  conf_global_vars_s globals{};

  int peerPort = 4711;  // below 0: net_getpeername fails
  const char* dnsName = nullptr;
  const char* translated = nullptr;  // what request_translate_uri gives
  bool evilUri = false;
  int startResult = REQ_PROCEED;    // of protocol_start_response
  int writeError = 0;               // net_write fails with this errno
  std::vector<std::string> unread;  // what each netbuf_grab brings
  int grabFailure = 0;              // what it gives when nothing is left
  std::int64_t failAllocation = 0;  // the allocation of this number fails

  std::vector<std::string> log;
  std::string reason;
  std::string body;
  int starts = 0;
  std::int64_t allocations = 0;  // of both kinds, the blocks' own left out
  std::int64_t poolBlocks = 0;   // taken and not given back
  std::int64_t permBlocks = 0;
  void (*atRestart)(void*) = nullptr;
};
