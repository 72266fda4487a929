// What a browser asks the explanation of, out of a query: url, host, cookie, method.
//
// A URL may begin with http:// or https:// and a host, or with a path. Its path is
// decoded as a web server decodes it, and ends before a '?' or '#'.
//
// Ownership: the texts are the record's. Threads: any. Failure: the words for it, or
// null. Units: bytes, with the NUL.
#pragma once

#include <string_view>

#include "context/vesk_request.h"
#include "status/explain.h"

constexpr std::int32_t kUrlSize = 4096;
constexpr std::int32_t kAskedHeaderSize = 1024;

struct ExplainQuery {
  char url[kUrlSize];  // as it was asked
  char path[kUrlSize];
  char host[kAskedHeaderSize];
  char cookie[kAskedHeaderSize];
  char method[32];
};

[[nodiscard]] const char* readExplainQuery(std::string_view query, ExplainQuery* asked);

// Explains it with the record's allocators, guards and log: the caller gives the result
// back with `free` of the request. Null without memory.
[[nodiscard]] Explanation* explainQuery(mappingsTable* table, const vesk_request* model,
                                        const ExplainQuery& asked);
