#include "proxy/proxy_settings.h"
#include "status/json_parts.h"
#include "status/status_format.h"

static void writeTrend(TextBuffer* page, const char* name, const std::uint64_t* trend,
                       std::int64_t now) {
  std::uint32_t counts[kTrendSlots];
  readTrend(trend, now, counts);
  jsonField(page, name);
  add(page, "[");
  for (std::int32_t i = 0; i < kTrendSlots; ++i) {
    jsonComma(page, i);
    addNumber(page, counts[i]);
  }
  add(page, "]");
}

static void writeErrors(TextBuffer* page, const serverCounters& counters) {
  add(page, "\"errors\":{");
  for (std::int32_t i = 0; i < kErrorKinds; ++i) {
    jsonComma(page, i);
    jsonNumber(page, errorKindWord(i), counters.errors[i]);
  }
  add(page, "},");
}

static void writeTimes(TextBuffer* page, const serverCounters& counters) {
  add(page, "\"responseSeconds\":{");
  jsonSeconds(page, "sum", counters.micros);
  jsonComma(page);
  jsonSeconds(page, "p50", timeQuantile(counters, 500));
  jsonComma(page);
  jsonSeconds(page, "p90", timeQuantile(counters, 900));
  jsonComma(page);
  jsonSeconds(page, "p99", timeQuantile(counters, 990));
  add(page, "},");
}

static void writeCounters(TextBuffer* page, const serverCounters& counters,
                          std::int64_t now) {
  jsonNumber(page, "requests", attemptsOf(counters));
  jsonComma(page);
  jsonNumber(page, "served", counters.served);
  jsonComma(page);
  writeErrors(page, counters);
  jsonNumber(page, "takenOver", counters.takenOver);
  jsonComma(page);
  writeTimes(page, counters);
  writeTrend(page, "trend", counters.trend, now);
  jsonComma(page);
  writeTrend(page, "errorTrend", counters.errorTrend, now);
}

static void writeServer(TextBuffer* page, const statusServer& server, std::int64_t now) {
  add(page, "\n{");
  jsonText(page, "server", server.name);
  jsonComma(page);
  jsonText(page, "state", stateWord(server));
  jsonComma(page);
  jsonNumber(page, "since", server.since);
  jsonComma(page);
  jsonNumber(page, "retryInSeconds", server.retryIn);
  jsonComma(page);
  jsonTruth(page, "draining", server.drained);
  jsonComma(page);
  jsonNumber(page, "weight", server.weight);
  jsonComma(page);
  jsonText(page, "algorithm", algorithmName(server.algorithm));
  jsonComma(page);
  jsonTruth(page, "sticky", server.sticky);
  jsonComma(page);
  jsonText(page, "replicationId", server.replicationId);
  jsonComma(page);
  jsonNumber(page, "mappings", server.mappings);
  jsonComma(page);
  jsonNumber(page, "active", server.running);
  jsonComma(page);
  jsonNumber(page, "idle", server.idle);
  jsonComma(page);
  writeCounters(page, server.counters, now);
  add(page, "}");
}

static void writeMapping(TextBuffer* page, const statusMapping& mapping) {
  add(page, "\n{");
  jsonText(page, "pattern", mapping.pattern);
  jsonComma(page);
  jsonNumber(page, "hits", mapping.hits);
  jsonComma(page);
  jsonNumber(page, "servers", mapping.servers);
  jsonComma(page);
  jsonNumber(page, "active", mapping.active);
  add(page, "}");
}

static void writeEvent(TextBuffer* page, const veskEvent& event) {
  add(page, "\n{");
  jsonNumber(page, "time", event.time);
  jsonComma(page);
  jsonText(page, "text", event.text);
  add(page, "}");
}

static void writeCluster(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "\"cluster\":{");
  jsonTruth(page, "filled", snapshot.filled);
  jsonComma(page);
  jsonTruth(page, "clustered", snapshot.clustered);
  jsonComma(page);
  jsonNumber(page, "sequence", snapshot.sequence);
  jsonComma(page);
  jsonText(page, "bootstrap", snapshot.bootstrap);
  jsonComma(page);
  jsonText(page, "store", snapshot.store);
  add(page, "},\n");
}

static void writeRequests(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "\"requests\":{");
  jsonNumber(page, "served", snapshot.requests[kOutcomeServed]);
  jsonComma(page);
  jsonNumber(page, "broken", snapshot.requests[kOutcomeBroken]);
  jsonComma(page);
  jsonNumber(page, "failed", snapshot.requests[kOutcomeFailed]);
  jsonComma(page);
  jsonNumber(page, "declined", snapshot.requests[kOutcomeDeclined]);
  add(page, "},\n\"tableLock\":{");
  jsonNumber(page, "waits", snapshot.lockWaits);
  jsonComma(page);
  jsonSeconds(page, "waitSeconds", snapshot.lockMicros);
  add(page, "},\n");
}

static void writeProcess(TextBuffer* page, const statusSnapshot& snapshot) {
  jsonText(page, "version", snapshot.version);
  jsonComma(page);
  jsonNumber(page, "time", snapshot.now);
  jsonComma(page);
  jsonNumber(page, "countedSince", snapshot.started);
  jsonComma(page);
  jsonNumber(page, "pid", snapshot.pid);
  jsonComma(page);
  jsonNumber(page, "processes", snapshot.processes);
  jsonComma(page);
  jsonTruth(page, "countsOfAllProcesses", snapshot.shared);
  add(page, ",\n");
}

static void writeOptions(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "\n],\n\"options\":{");
  for (std::int32_t i = 0; i < snapshot.optionCount; ++i) {
    jsonComma(page, i);
    jsonText(page, snapshot.options[i].name, snapshot.options[i].value);
  }
  add(page, "}}\n");
}

void writeJson(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "{");
  writeProcess(page, snapshot);
  writeCluster(page, snapshot);
  writeRequests(page, snapshot);
  add(page, "\"servers\":[");
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i) {
    jsonComma(page, i);
    writeServer(page, snapshot.servers[i], snapshot.now);
  }
  add(page, "\n],\n\"mappings\":[");
  for (std::int32_t i = 0; i < snapshot.mappingCount; ++i) {
    jsonComma(page, i);
    writeMapping(page, snapshot.mappings[i]);
  }
  add(page, "\n],\n\"events\":[");
  for (std::int32_t i = 0; i < snapshot.eventCount; ++i) {
    jsonComma(page, i);
    writeEvent(page, snapshot.events[i]);
  }
  writeOptions(page, snapshot);
}
