// One request's work in the proxy layer, with the socket replaced by memory: the
// frame, the conversation, and what a mapping refresh costs.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "context/request_setup.h"
#include "properties/vesk_property.h"
#include "proxy/mapping_order.h"
#include "proxy/proxy_lifecycle.h"
#include "proxy/proxy_marshal.h"
#include "proxy/server_counters.h"
#include "proxy/wire.h"

static std::string answer;    // what the server says in each conversation
static std::size_t position;  // of the next byte

static std::int32_t memoryConnect(vesk_request* req, const sockaddr_in* /*address*/) {
  req->lastError = 0;
  return 1;
}

static void memoryClose(vesk_request* /*req*/, std::int32_t /*sock*/) {}

static std::int32_t memorySend(vesk_request* req, std::int32_t /*sock*/,
                               const void* /*buffer*/, std::int32_t length) {
  req->lastError = 0;
  return length;
}

static std::int32_t memoryRecv(vesk_request* req, std::int32_t /*sock*/, void* buffer,
                               std::int32_t length, veskProxy* /*proxy*/) {
  req->lastError = 0;
  std::memcpy(buffer, answer.data() + position, static_cast<std::size_t>(length));
  position += static_cast<std::size_t>(length);
  return length;
}

static const char* anyHeader(vesk_request* /*req*/, const char* /*name*/) {
  return "a value of usual length";
}

static void ignoreStatus(vesk_request* /*req*/, std::int32_t /*status*/,
                         const char* /*reason*/) {}

static void ignoreHeader(vesk_request* /*req*/, const char* /*name*/,
                         const char* /*value*/) {}

static std::int32_t takeBody(vesk_request* /*req*/, const char* /*buffer*/,
                             std::int32_t /*length*/) {
  return 0;
}

static const char* headerNames[] = {"host",   "user-agent",      "accept",
                                    "cookie", "accept-language", nullptr};
static const char* headerValues[] = {"localhost:8080",
                                     "browser/1.0 (some system)",
                                     "text/html,*/*;q=0.8",
                                     "JSESSIONID=s001abcdef",
                                     "en",
                                     nullptr};

static void prepare(vesk_request* req) {
  init_vesk_request(req);
  req->uri = "/demo/index.jsp";
  req->headerNames = headerNames;
  req->headerValues = headerValues;
  req->getHeader = anyHeader;
  req->setStatus = ignoreStatus;
  req->addHeader = ignoreHeader;
  req->writeClient = takeBody;
  req->connect = memoryConnect;
  req->closeSocket = memoryClose;
  req->send = memorySend;
  req->recv = memoryRecv;
}

static void putText(std::string* out, const std::string& text) {
  char word[kWordSize];
  putWord(word, static_cast<std::int32_t>(text.size()));
  out->append(word, sizeof word).append(text);
}

static void putCommand(std::string* out, std::int32_t command) {
  char word[kWordSize];
  putWord(word, command);
  out->append(word, sizeof word);
}

static std::string pageOf(std::size_t bytes) {
  std::string page;
  putCommand(&page, PROXY_PUT_STATUS);
  putCommand(&page, 200);
  putText(&page, "OK");
  putCommand(&page, PROXY_PUT_HEADER);
  putText(&page, "Content-Type: text/html\r\nCache-Control: no-store\r\n");
  putCommand(&page, PROXY_PUT_CLIENT);
  putText(&page, std::string(bytes, 'x'));
  putCommand(&page, PROXY_FINISH);
  return page;
}

static void buildFrame(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  for (auto _ : state) {
    char* frame = nullptr;
    benchmark::DoNotOptimize(buildRequest(&req, &frame, nullptr));
    req.free(&req, frame);
  }
}
BENCHMARK(buildFrame);

static void serveRequest(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  veskProxy* proxy = veskProxyNew(&req);
  (void)proxy->initProxy(proxy, &req, "127.0.0.1:1", 0, 1);
  answer = pageOf(static_cast<std::size_t>(state.range(0)));
  for (auto _ : state) {
    position = 0;
    benchmark::DoNotOptimize(proxy->handleRequest(&req, proxy, nullptr, nullptr));
  }
  (void)proxy->destroyInetProxy(proxy, &req);
}
BENCHMARK(serveRequest)->Arg(100)->Arg(10000)->Arg(1000000);

static std::string mappingText(std::int64_t count) {
  std::string text;
  for (std::int64_t i = 0; i < count; ++i)
    text += "/application" + std::to_string(i % 97) + "/part" + std::to_string(i) +
            "/*=target\n";
  return text;
}

static void parseAndSortMappings(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  const std::string text = mappingText(state.range(0));
  for (auto _ : state) {
    propertyTable* table = parseProperties(&req, text.c_str());
    (void)sortMappings(&req, table);
    freeProperties(&req, table);
  }
}
BENCHMARK(parseAndSortMappings)->Arg(10)->Arg(1000)->Arg(8000);

// What an attempt adds for the status page: in the process's own memory, and by several
// threads that serve with the same server.
static void countOneAttempt(benchmark::State& state) {
  static serverCounters counters;
  std::int64_t micros = 100;
  for (auto _ : state) {
    countAttempt(
        &counters,
        {.served = true, .cause = '-', .first = true, .micros = micros, .second = 1000});
    micros = micros * 5 % 100003;
  }
}
BENCHMARK(countOneAttempt)->Threads(1)->Threads(2);
