// Servers that a test plays, and the fixture of all tests of this folder.
//
// While a FakeCluster stands, every proxy that makeTable's tables make talks to one of
// its servers, found by the proxy's name, instead of to a socket. A server that
// the test didn't name is down.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "maptable/membership.h"
#include "maptable/vesk_maptable_impl.h"
#include "support/recorded_request.h"

// How a server ends one forwarded request.
struct Reply {
  std::int32_t error = 0;  // lastError of a failure; 0: served
  std::int32_t sequence = -1;
  bool unreachable = false;      // the pool has marked the server
  bool last = false;             // the server goes down
  const char* cookie = nullptr;  // set before that
};

struct FakeServer {
  // The answers, from here on. The flags may change while threads run.
  std::atomic<bool> up = true;              // initProxy succeeds, pings get through
  std::atomic<std::int32_t> refreshed = 1;  // result of refreshMappings
  std::string mappings = "/demo*=demo";     // what initProxy and a refresh install
  std::vector<std::string> clustered;       // the list of its cluster
  std::int32_t listSequence = -1;           // the number that comes with it
  std::deque<Reply> replies;                // to requests; when empty: served
  std::int64_t weight = 1;
  std::uint32_t algorithm = BALANCE_ROUNDROBIN;
  std::uint32_t sticky = 0;
  const char* replicationId = nullptr;

  // What it was asked.
  std::atomic<int> pings = 0, refreshes = 0, flushes = 0, lists = 0, questions = 0;
};

struct FakeCluster {
  FakeCluster();
  ~FakeCluster();
  FakeCluster(const FakeCluster&) = delete;
  FakeCluster& operator=(const FakeCluster&) = delete;

  FakeServer& operator[](const std::string& name) {
    return servers[name];
  }

  std::map<std::string, FakeServer> servers;
  std::string asked;      // names given to initProxy, in order, each with a blank
  std::string forwarded;  // servers of all requests, in the same form
  std::atomic<int> created = 0, destroyed = 0, ended = 0;
  int mostCreated = INT_MAX;  // then there is no memory for one more
};

// A table, its servers and a request. At the end nothing may be left allocated.
class MapTable : public ::testing::Test {
 protected:
  MapTable();
  ~MapTable() override;

  // Replaces the table by one with these sources.
  void makeTable(const char* store, const char* bootstrap);
  // Makes a proxy of a server of the cluster, with these mappings if they are
  // given, and joins it.
  veskProxy* join(const std::string& name, const char* mappings = nullptr);
  // Lets a server's mappings change, and the table know; its n-th allocation fails.
  void update(veskProxy* proxy, const std::string& mappings, std::int64_t failing = 0);
  void remove(veskProxy* proxy);

  // "key=value" of each mapping with its servers, those not active in brackets, and
  // "none" where the mapping says that none is.
  [[nodiscard]] std::vector<std::string> mappings() const;
  [[nodiscard]] static std::string names(const proxyList& list);
  [[nodiscard]] std::string stored() const;  // what the store holds

  RecordedRequest t;
  FakeCluster cluster;
  mappingsTable* table = nullptr;
  const std::string path;  // of a store; nothing is there, and goes at the end
};
