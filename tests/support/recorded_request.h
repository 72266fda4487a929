// A request without a web server: it plays the client's side from fields, and
// records everything the connector does to it.
//
// The record's `rq` refers back to the fixture. Memory is counted: a test fails
// when request memory is still out at the end, and can make the n-th allocation
// fail. Sockets stay the real ones unless a test replaces the operations.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "context/vesk_request.h"

class RecordedRequest {
 public:
  RecordedRequest();
  RecordedRequest(const RecordedRequest&) = delete;
  RecordedRequest& operator=(const RecordedRequest&) = delete;

  // Lines of one grade that contain `part`; `all` joins every line with '\n'.
  [[nodiscard]] int logged(const std::string& part) const;
  [[nodiscard]] int traced(const std::string& part) const;
  [[nodiscard]] int tracedE(const std::string& part) const;
  [[nodiscard]] std::string all() const;

  // Blocks of request memory that were not released yet.
  [[nodiscard]] std::int64_t leaks() const {
    return requestBlocks;
  }

  vesk_request record;
  vesk_request* req = &record;

  // What the client sent.
  std::map<std::string, std::string> variables;  // what getHeader finds, exactly
  std::map<std::string, std::string> realPaths;
  std::string postData;           // not yet read
  bool postBreaks = false;        // after postData: -1 once, as a lost client
  std::int32_t writesToFail = 0;  // that many writeClient calls give -1

  // What the client got.
  std::int32_t status = 0;
  std::string reason;
  std::vector<std::pair<std::string, std::string>> responseHeaders;
  std::string body;
  int writes = 0;  // calls of writeClient, also with length 0

  std::vector<std::string> logLines;
  std::vector<std::string> traceLines;
  std::vector<std::string> traceELines;

  // Memory: the allocation of this number (from 1) gives null; 0 means none.
  std::int64_t failAllocation = 0;
  std::int64_t allocations = 0;
  std::int64_t requestBlocks = 0;
  std::int64_t permBlocks = 0;
};
