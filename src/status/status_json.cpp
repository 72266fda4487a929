#include "proxy/proxy_settings.h"
#include "status/json_parts.h"
#include "status/status_format.h"

static void writeTrend(TextBuffer* page, const char* name, const std::uint64_t* trend,
                       std::int64_t now) {
  std::uint32_t counts[kTrendSlots];
  readTrend(trend, now, counts);
  jsonOpen(page, name, '[');
  for (std::int32_t i = 0; i < kTrendSlots; ++i) jsonNumber(page, nullptr, counts[i]);

  jsonClose(page, ']');
}

static void writeErrors(TextBuffer* page, const serverCounters& counters) {
  jsonOpen(page, "errors", '{');
  for (std::int32_t i = 0; i < kErrorKinds; ++i)
    jsonNumber(page, errorKindWord(i), counters.errors[i]);

  jsonClose(page, '}');
}

static void writeTimes(TextBuffer* page, const serverCounters& counters) {
  jsonOpen(page, "responseSeconds", '{');
  jsonSeconds(page, "sum", counters.micros);
  jsonSeconds(page, "p50", timeQuantile(counters, 500));
  jsonSeconds(page, "p90", timeQuantile(counters, 900));
  jsonSeconds(page, "p99", timeQuantile(counters, 990));
  jsonClose(page, '}');
}

static void writeCounters(TextBuffer* page, const serverCounters& counters,
                          std::int64_t now) {
  jsonNumber(page, "requests", attemptsOf(counters));
  jsonNumber(page, "served", counters.served);
  writeErrors(page, counters);
  jsonNumber(page, "takenOver", counters.takenOver);
  writeTimes(page, counters);
  writeTrend(page, "trend", counters.trend, now);
  writeTrend(page, "errorTrend", counters.errorTrend, now);
}

static void writeServer(TextBuffer* page, const statusServer& server, std::int64_t now) {
  jsonOpen(page, nullptr, '{');
  jsonText(page, "server", server.name);
  jsonText(page, "state", stateWord(server));
  jsonNumber(page, "since", server.since);
  jsonNumber(page, "retryInSeconds", server.retryIn);
  jsonTruth(page, "draining", server.drained);
  jsonNumber(page, "weight", server.weight);
  jsonText(page, "algorithm", algorithmName(server.algorithm));
  jsonTruth(page, "sticky", server.sticky);
  jsonText(page, "replicationId", server.replicationId);
  jsonNumber(page, "mappings", server.mappings);
  jsonNumber(page, "active", server.running);
  jsonNumber(page, "idle", server.idle);
  writeCounters(page, server.counters, now);
  jsonClose(page, '}');
}

static void writeMapping(TextBuffer* page, const statusMapping& mapping) {
  jsonOpen(page, nullptr, '{');
  jsonText(page, "pattern", mapping.pattern);
  jsonNumber(page, "hits", mapping.hits);
  jsonNumber(page, "servers", mapping.servers);
  jsonNumber(page, "active", mapping.active);
  jsonClose(page, '}');
}

static void writeEvent(TextBuffer* page, const veskEvent& event) {
  jsonOpen(page, nullptr, '{');
  jsonNumber(page, "time", event.time);
  jsonText(page, "text", event.text);
  jsonClose(page, '}');
}

static void writeCluster(TextBuffer* page, const statusSnapshot& snapshot) {
  jsonOpen(page, "cluster", '{');
  jsonTruth(page, "filled", snapshot.filled);
  jsonTruth(page, "clustered", snapshot.clustered);
  jsonNumber(page, "sequence", snapshot.sequence);
  jsonText(page, "bootstrap", snapshot.bootstrap);
  jsonText(page, "store", snapshot.store);
  jsonClose(page, '}');
}

static void writeRequests(TextBuffer* page, const statusSnapshot& snapshot) {
  jsonOpen(page, "requests", '{');
  jsonNumber(page, "served", snapshot.requests[kOutcomeServed]);
  jsonNumber(page, "broken", snapshot.requests[kOutcomeBroken]);
  jsonNumber(page, "failed", snapshot.requests[kOutcomeFailed]);
  jsonNumber(page, "declined", snapshot.requests[kOutcomeDeclined]);
  jsonClose(page, '}');
  jsonOpen(page, "tableLock", '{');
  jsonNumber(page, "waits", snapshot.lockWaits);
  jsonSeconds(page, "waitSeconds", snapshot.lockMicros);
  jsonClose(page, '}');
}

static void writeProcess(TextBuffer* page, const statusSnapshot& snapshot) {
  jsonText(page, "version", snapshot.version);
  jsonNumber(page, "time", snapshot.now);
  jsonNumber(page, "countedSince", snapshot.started);
  jsonNumber(page, "pid", snapshot.pid);
  jsonNumber(page, "processes", snapshot.processes);
  jsonTruth(page, "countsOfAllProcesses", snapshot.shared);
}

static void writeOptions(TextBuffer* page, const statusSnapshot& snapshot) {
  jsonOpen(page, "options", '{');
  for (std::int32_t i = 0; i < snapshot.optionCount; ++i)
    jsonText(page, snapshot.options[i].name, snapshot.options[i].value);

  jsonClose(page, '}');
}

void writeJson(TextBuffer* page, const statusSnapshot& snapshot) {
  jsonOpen(page, nullptr, '{');
  writeProcess(page, snapshot);
  writeCluster(page, snapshot);
  writeRequests(page, snapshot);
  jsonOpen(page, "servers", '[');
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i)
    writeServer(page, snapshot.servers[i], snapshot.now);
  jsonClose(page, ']');
  jsonOpen(page, "mappings", '[');
  for (std::int32_t i = 0; i < snapshot.mappingCount; ++i)
    writeMapping(page, snapshot.mappings[i]);
  jsonClose(page, ']');
  jsonOpen(page, "events", '[');
  for (std::int32_t i = 0; i < snapshot.eventCount; ++i)
    writeEvent(page, snapshot.events[i]);
  jsonClose(page, ']');
  writeOptions(page, snapshot);
  jsonClose(page, '}');
  add(page, "\n");
}
