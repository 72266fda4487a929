// Matching and choosing: what a request costs under the table's lock.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "context/request_setup.h"
#include "maptable/membership.h"
#include "maptable/selection.h"
#include "maptable/vesk_maptable_impl.h"
#include "proxy/proxy_lifecycle.h"

static const char* noHeader(vesk_request* /*req*/, const char* /*name*/) {
  return nullptr;
}

static std::int32_t nothingDue(veskProxy* /*proxy*/, vesk_request* /*req*/) {
  return 1;
}

static void prepare(vesk_request* req) {
  init_vesk_request(req);
  req->getHeader = noHeader;
}

// A server that is set up without being spoken to.
static veskProxy* makeServer(vesk_request* req, int number, const std::string& mappings,
                             std::uint32_t algorithm) {
  veskProxy* proxy = veskProxyNew(req);
  (void)std::snprintf(proxy->name, sizeof proxy->name, "127.0.0.1:%d", 7000 + number);
  proxy->refreshMappings = nothingDue;
  proxy->mappings = parseProperties(req, mappings.c_str());
  proxy->balance = static_cast<proxyBalance*>(req->permMalloc(req, sizeof(proxyBalance)));
  std::memset(proxy->balance, 0, sizeof *proxy->balance);
  proxy->balance->weight = proxy->balance->turnsLeft = number + 1;
  proxy->balance->algorithm = algorithm;
  proxy->balance->active = 1;
  return proxy;
}

static mappingsTable* makeTable(vesk_request* req, int servers,
                                const std::string& mappings, std::uint32_t algorithm) {
  mappingsTable* table = mappingsTableNew(req, "", "", 0);
  for (int i = 0; i < servers; ++i)
    addProxy(table, makeServer(req, i, mappings, algorithm), req, 1);
  return table;
}

// The URI fits the last of the mappings, or none.
static void filterLastOf(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  std::string mappings;
  for (std::int64_t i = 0; i < state.range(0); ++i)
    mappings += "/application/part" + std::to_string(i) + "*=target\n";
  mappings += "*.jsp=target\n";
  mappingsTable* table = makeTable(&req, 3, mappings, BALANCE_ROUNDROBIN);
  req.uri = "/somewhere/else/index.jsp";
  for (auto _ : state) benchmark::DoNotOptimize(table->filterRequest(table, &req, 1));
  mappingsTableDelete(table, &req);
}
BENCHMARK(filterLastOf)->Arg(1)->Arg(10)->Arg(100)->Arg(1000)->Arg(8000);

static void select(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  mappingsTable* table = makeTable(&req, static_cast<int>(state.range(1)), "/*=target\n",
                                   static_cast<std::uint32_t>(state.range(0)));
  for (auto _ : state) benchmark::DoNotOptimize(selectProxy(table, &req, 0));
  mappingsTableDelete(table, &req);
}
BENCHMARK(select)
    ->ArgNames({"algorithm", "servers"})
    ->ArgsProduct({{1, 2, 3, 4, 5}, {3, 128}});
