// A request and a proxy in service in front of a scripted backend, and a clock
// that stands still.
#pragma once

#include <initializer_list>

#include "proxy/vesk_proxy.h"
#include "support/recorded_request.h"
#include "support/scripted_backend.h"

// What the clock of a request tells; only a test moves it.
extern std::int64_t testNow;
std::int64_t testClock(vesk_request* req);

using Script = std::vector<ScriptStep>;
Script operator+(Script first, const Script& second);

// What the browser got: status, reason, headers and body.
std::string response(const RecordedRequest& t);
// "1 2 3 "
std::string numbers(std::initializer_list<std::int64_t> list);

// A proxy with a pool and a balance, as initProxy leaves it but without a word to
// the server: no interval, no mappings.
veskProxy* newServingProxy(vesk_request* req);

// What a test of every word tries: pieces of a byte, and whole ones.
constexpr std::int32_t kPieces[] = {1, INT32_MAX};

class TestRequest : public RecordedRequest {
 public:
  // With so many idle connections in the pool. Each has been welcomed with a ping
  // in front of the script; kFirstSocket lies lowest, the last is handed out first.
  explicit TestRequest(const Script& script, int idle = 0);
  // Destroys the proxy and releases the attributes; fails the test when the script
  // isn't played to its end, or memory or a socket is left.
  ~TestRequest();
  TestRequest(const TestRequest&) = delete;
  TestRequest& operator=(const TestRequest&) = delete;

  // "2 idle, out of service, retry 60": the pool, then the marks of the proxy, the
  // last one in seconds from now.
  [[nodiscard]] std::string state() const;

  ScriptedBackend backend;
  veskProxy* proxy;
};
