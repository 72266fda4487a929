// What is done under the table's lock: matching, choosing, and the changes that
// servers bring, which all requests wait for.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

#include "context/request_setup.h"
#include "maptable/membership.h"
#include "maptable/selection.h"
#include "maptable/table_lifecycle.h"
#include "maptable/vesk_maptable_impl.h"
#include "proxy/mapping_order.h"
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
    (void)addProxy(table, makeServer(req, i, mappings, algorithm), req, 1);
  return table;
}

// The URI fits the last of the mappings; it has nothing in common with the others, or,
// `near` 1, their start and a boundary wherever one of them ends.
static void filterLastOf(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  std::string mappings;
  for (std::int64_t i = 0; i < state.range(0); ++i)
    mappings += "/application/part" + std::to_string(i) + "*=target\n";
  mappings += "*.jsp=target\n";
  mappingsTable* table = makeTable(&req, 3, mappings, BALANCE_ROUNDROBIN);
  req.uri = state.range(1) ? "/application/par0///////index.jsp" : "/some/index.jsp";
  for (auto _ : state) benchmark::DoNotOptimize(table->filterRequest(table, &req, 1));
  mappingsTableDelete(table, &req);
}
BENCHMARK(filterLastOf)
    ->ArgNames({"mappings", "near"})
    ->ArgsProduct({{1, 10, 100, 1000, 8000}, {0, 1}});

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

static std::string manyMappings(const char* start, std::int64_t count) {
  std::string text;
  for (std::int64_t i = 0; i < count; ++i)
    text += start + std::to_string(i) + "*=target\n";
  return text;
}

static void takeOut(mappingsTable* table, vesk_request* req) {
  benchmark::DoNotOptimize(table->mappings->count);
  mappingsTableDelete(table, req);
}

// The first server brings the mappings.
static void joinFirst(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  const std::string mappings = manyMappings("/application/part", state.range(0));
  for (auto _ : state) {
    state.PauseTiming();
    mappingsTable* table = mappingsTableNew(&req, "", "", 0);
    veskProxy* proxy = makeServer(&req, 0, mappings, BALANCE_ROUNDROBIN);
    state.ResumeTiming();
    (void)addProxy(table, proxy, &req, 1);
    state.PauseTiming();
    takeOut(table, &req);
    state.ResumeTiming();
  }
}
BENCHMARK(joinFirst)->Arg(10)->Arg(8192)->Unit(benchmark::kMicrosecond);

// Half of the table is there, and each new mapping belongs in front of it: in order
// of the server, or, `descents` 1, in the order that is worst to merge.
static void joinInFront(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  const std::string first = manyMappings("/part", state.range(0) / 2);
  std::string second;
  for (std::int64_t i = 0; i < state.range(0) / 2; ++i)
    second.append("/in/front/")
        .append(std::to_string(10000 + i))
        .append(static_cast<std::size_t>(i % 2 * state.range(1)), 'x')
        .append("*=target\n");
  for (auto _ : state) {
    state.PauseTiming();
    mappingsTable* table = makeTable(&req, 1, first, BALANCE_ROUNDROBIN);
    veskProxy* proxy = makeServer(&req, 1, second, BALANCE_ROUNDROBIN);
    state.ResumeTiming();
    (void)addProxy(table, proxy, &req, 1);
    state.PauseTiming();
    takeOut(table, &req);
    state.ResumeTiming();
  }
}
BENCHMARK(joinInFront)
    ->ArgNames({"mappings", "descents"})
    ->ArgsProduct({{10, 8192}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

// A known server returns.
static void joinAgain(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  mappingsTable* table =
      makeTable(&req, 3, manyMappings("/part", state.range(0)), BALANCE_ROUNDROBIN);
  for (auto _ : state) (void)addProxy(table, table->masterList.proxies[1], &req, 1);
  takeOut(table, &req);
}
BENCHMARK(joinAgain)->Arg(10)->Arg(8192)->Unit(benchmark::kMicrosecond);

// A refresh: of the same mappings, or, `others` 1, of others than the table holds.
static void update(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  mappingsTable* table =
      makeTable(&req, 3, manyMappings("/part", state.range(0)), BALANCE_ROUNDROBIN);
  veskProxy* proxy = table->masterList.proxies[1];
  if (state.range(1)) {
    freeProperties(&req, proxy->mappings);
    proxy->mappings =
        parseProperties(&req, manyMappings("/other", state.range(0)).c_str());
  }
  for (auto _ : state) updateProxy(table, proxy, &req, 1);
  takeOut(table, &req);
}
BENCHMARK(update)
    ->ArgNames({"mappings", "others"})
    ->ArgsProduct({{10, 8192}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

// What a server sends is put in order: `spelling` 0 as it is, 1 in reverse order, 2
// with the '/' that goes.
static void sortNew(benchmark::State& state) {
  vesk_request req;
  prepare(&req);
  std::string text;
  for (std::int64_t i = 0; i < state.range(0); ++i) {
    const auto length = static_cast<std::size_t>(i % 100);
    text.append("/")
        .append(state.range(1) == 1 ? length : 100 - length, 'x')
        .append(std::to_string(10000 + i))
        .append(state.range(1) == 2 ? "/*=target\n" : "*=target\n");
  }
  for (auto _ : state) {
    state.PauseTiming();
    propertyTable* table = parseProperties(&req, text.c_str());
    state.ResumeTiming();
    (void)sortMappings(&req, table);
    state.PauseTiming();
    freeProperties(&req, table);
    state.ResumeTiming();
  }
}
BENCHMARK(sortNew)
    ->ArgNames({"mappings", "spelling"})
    ->ArgsProduct({{10, 8192}, {0, 1, 2}})
    ->Unit(benchmark::kMicrosecond);
