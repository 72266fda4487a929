#include <cstring>

#include "status/status_format.h"

static void field(TextBuffer* page, const char* name) {
  add(page, "\"");
  add(page, name);
  add(page, "\":");
}

static void number(TextBuffer* page, const char* name, std::int64_t value) {
  field(page, name);
  addNumber(page, value);
}

static void seconds(TextBuffer* page, const char* name, std::int64_t micros) {
  field(page, name);
  addSeconds(page, micros);
}

static void truth(TextBuffer* page, const char* name, bool value) {
  field(page, name);
  add(page, value ? "true" : "false");
}

static void text(TextBuffer* page, const char* name, const char* value) {
  field(page, name);
  if (value)
    addJson(page, value);
  else
    add(page, "null");
}

static void comma(TextBuffer* page, std::int64_t index = 1) {
  if (index > 0) add(page, ",");
}

static void writeTrend(TextBuffer* page, const char* name, const std::uint64_t* trend,
                       std::int64_t now) {
  std::uint32_t counts[kTrendSlots];
  readTrend(trend, now, counts);
  field(page, name);
  add(page, "[");
  for (std::int32_t i = 0; i < kTrendSlots; ++i) {
    comma(page, i);
    addNumber(page, counts[i]);
  }
  add(page, "]");
}

static void writeErrors(TextBuffer* page, const serverCounters& counters) {
  add(page, "\"errors\":{");
  for (std::int32_t i = 0; i < kErrorKinds; ++i) {
    comma(page, i);
    number(page, errorKindWord(i), counters.errors[i]);
  }
  add(page, "},");
}

static void writeTimes(TextBuffer* page, const serverCounters& counters) {
  add(page, "\"responseSeconds\":{");
  seconds(page, "sum", counters.micros);
  comma(page);
  seconds(page, "p50", timeQuantile(counters, 500));
  comma(page);
  seconds(page, "p90", timeQuantile(counters, 900));
  comma(page);
  seconds(page, "p99", timeQuantile(counters, 990));
  add(page, "},");
}

static void writeCounters(TextBuffer* page, const serverCounters& counters,
                          std::int64_t now) {
  number(page, "requests", attemptsOf(counters));
  comma(page);
  number(page, "served", counters.served);
  comma(page);
  writeErrors(page, counters);
  number(page, "takenOver", counters.takenOver);
  comma(page);
  writeTimes(page, counters);
  writeTrend(page, "trend", counters.trend, now);
  comma(page);
  writeTrend(page, "errorTrend", counters.errorTrend, now);
}

static void writeServer(TextBuffer* page, const statusServer& server, std::int64_t now) {
  add(page, "\n{");
  text(page, "server", server.name);
  comma(page);
  text(page, "state", stateWord(server));
  comma(page);
  number(page, "since", server.since);
  comma(page);
  number(page, "retryInSeconds", server.retryIn);
  comma(page);
  truth(page, "draining", server.drained);
  comma(page);
  number(page, "weight", server.weight);
  comma(page);
  text(page, "algorithm", algorithmWord(server.algorithm));
  comma(page);
  truth(page, "sticky", server.sticky);
  comma(page);
  text(page, "replicationId", server.replicationId);
  comma(page);
  number(page, "mappings", server.mappings);
  comma(page);
  number(page, "active", server.running);
  comma(page);
  number(page, "idle", server.idle);
  comma(page);
  writeCounters(page, server.counters, now);
  add(page, "}");
}

static void writeMapping(TextBuffer* page, const statusMapping& mapping) {
  add(page, "\n{");
  text(page, "pattern", mapping.pattern);
  comma(page);
  number(page, "hits", mapping.hits);
  comma(page);
  number(page, "servers", mapping.servers);
  comma(page);
  number(page, "active", mapping.active);
  add(page, "}");
}

static void writeEvent(TextBuffer* page, const veskEvent& event) {
  add(page, "\n{");
  number(page, "time", event.time);
  comma(page);
  text(page, "text", event.text);
  add(page, "}");
}

static void writeCluster(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "\"cluster\":{");
  truth(page, "filled", snapshot.filled);
  comma(page);
  truth(page, "clustered", snapshot.clustered);
  comma(page);
  number(page, "sequence", snapshot.sequence);
  comma(page);
  text(page, "bootstrap", snapshot.bootstrap);
  comma(page);
  text(page, "store", snapshot.store);
  add(page, "},\n");
}

static void writeRequests(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "\"requests\":{");
  number(page, "served", snapshot.requests[kOutcomeServed]);
  comma(page);
  number(page, "broken", snapshot.requests[kOutcomeBroken]);
  comma(page);
  number(page, "failed", snapshot.requests[kOutcomeFailed]);
  comma(page);
  number(page, "declined", snapshot.requests[kOutcomeDeclined]);
  add(page, "},\n\"tableLock\":{");
  number(page, "waits", snapshot.lockWaits);
  comma(page);
  seconds(page, "waitSeconds", snapshot.lockMicros);
  add(page, "},\n");
}

static void writeProcess(TextBuffer* page, const statusSnapshot& snapshot) {
  text(page, "version", snapshot.version);
  comma(page);
  number(page, "time", snapshot.now);
  comma(page);
  number(page, "countedSince", snapshot.started);
  comma(page);
  number(page, "pid", snapshot.pid);
  comma(page);
  number(page, "processes", snapshot.processes);
  comma(page);
  truth(page, "countsOfAllProcesses", snapshot.shared);
  add(page, ",\n");
}

static void writeOptions(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, "\n],\n\"options\":{");
  for (std::int32_t i = 0; i < snapshot.optionCount; ++i) {
    comma(page, i);
    text(page, snapshot.options[i].name, snapshot.options[i].value);
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
    comma(page, i);
    writeServer(page, snapshot.servers[i], snapshot.now);
  }
  add(page, "\n],\n\"mappings\":[");
  for (std::int32_t i = 0; i < snapshot.mappingCount; ++i) {
    comma(page, i);
    writeMapping(page, snapshot.mappings[i]);
  }
  add(page, "\n],\n\"events\":[");
  for (std::int32_t i = 0; i < snapshot.eventCount; ++i) {
    comma(page, i);
    writeEvent(page, snapshot.events[i]);
  }
  writeOptions(page, snapshot);
}
