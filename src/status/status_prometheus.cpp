#include "status/status_format.h"

// One metric with a line a server.
struct ServerMetric {
  const char* name;
  const char* type;
  const char* help;
  std::int64_t (*value)(const statusServer& server);
};

constexpr const char* kGauge = "gauge";
constexpr const char* kCounter = "counter";

constexpr ServerMetric kServerMetrics[] = {
    {"vesk_server_up", kGauge,
     "1 while the server is in service, as this process sees it.",
     [](const statusServer& server) -> std::int64_t {
       return server.state == kServerUp;
     }},
    {"vesk_server_draining", kGauge, "1 while the server gets no new sessions.",
     [](const statusServer& server) -> std::int64_t { return server.drained; }},
    {"vesk_server_weight", kGauge, "Weight that the server has told last.",
     [](const statusServer& server) { return server.weight; }},
    {"vesk_server_active_requests", kGauge, "Requests of this process that it works on.",
     [](const statusServer& server) -> std::int64_t { return server.running; }},
    {"vesk_server_idle_connections", kGauge, "Connections of this process that lie idle.",
     [](const statusServer& server) -> std::int64_t { return server.idle; }},
    {"vesk_server_state_since_seconds", kGauge, "When its state has changed last.",
     [](const statusServer& server) { return server.since; }},
    {"vesk_server_requests_total", kCounter, "Attempts on the server that have ended.",
     [](const statusServer& server) { return attemptsOf(server.counters); }},
    {"vesk_server_retries_total", kCounter, "Attempts behind one that failed elsewhere.",
     [](const statusServer& server) { return server.counters.takenOver; }},
};

static void head(TextBuffer* page, const char* name, const char* type, const char* help) {
  for (const char* part :
       {"# HELP ", name, " ", help, "\n# TYPE ", name, " ", type, "\n"})
    add(page, part);
}

static void single(TextBuffer* page, const char* name, const char* type, const char* help,
                   std::int64_t value) {
  head(page, name, type, help);
  add(page, name);
  add(page, " ");
  addNumber(page, value);
  add(page, "\n");
}

// `name{server="...` without the closing brace.
static void begin(TextBuffer* page, const char* name, const statusServer& server) {
  add(page, name);
  add(page, "{server=");
  addLabel(page, server.name);
}

static void end(TextBuffer* page, std::int64_t value) {
  add(page, "} ");
  addNumber(page, value);
  add(page, "\n");
}

// A server that has left the cluster's list has no state any more: as one that is not up
// it would be an alarm for good. What it has been asked stays counted.
static bool isTold(const ServerMetric& metric, const statusServer& server) {
  return metric.type == kCounter || server.state != kServerGone;
}

static void writeServerMetric(TextBuffer* page, const statusSnapshot& snapshot,
                              const ServerMetric& metric) {
  head(page, metric.name, metric.type, metric.help);
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i) {
    const statusServer& server = snapshot.servers[i];
    if (!isTold(metric, server)) continue;
    begin(page, metric.name, server);
    end(page, metric.value(server));
  }
}

static void writeErrors(TextBuffer* page, const statusSnapshot& snapshot) {
  constexpr const char* kName = "vesk_server_errors_total";
  head(page, kName, "counter", "Attempts on the server that failed, by what ended them.");
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i) {
    for (std::int32_t kind = 0; kind < kErrorKinds; ++kind) {
      begin(page, kName, snapshot.servers[i]);
      add(page, ",kind=");
      addLabel(page, errorKindWord(kind));
      end(page, snapshot.servers[i].counters.errors[kind]);
    }
  }
}

static void writeBucket(TextBuffer* page, const statusServer& server,
                        std::int32_t exponent) {
  begin(page, "vesk_server_response_seconds_bucket", server);
  add(page, ",le=\"");
  addSeconds(page, std::int64_t{1} << exponent);
  add(page, "\"");
  end(page, servedWithin(server.counters, exponent));
}

// The count is the sum of the ranges, so that no bucket holds more than there are.
static void writeHistogramOf(TextBuffer* page, const statusServer& server) {
  constexpr std::int32_t kShortest = 8;  // a quarter of a millisecond
  constexpr std::int32_t kLongest = 26;  // a minute
  for (std::int32_t exponent = kShortest; exponent <= kLongest; exponent += 2)
    writeBucket(page, server, exponent);
  std::int64_t count = 0;
  for (const std::int64_t range : server.counters.times) count += range;
  begin(page, "vesk_server_response_seconds_bucket", server);
  add(page, ",le=\"+Inf\"");
  end(page, count);
  begin(page, "vesk_server_response_seconds_sum", server);
  add(page, "} ");
  addSeconds(page, server.counters.micros);
  add(page, "\n");
  begin(page, "vesk_server_response_seconds_count", server);
  end(page, count);
}

static void writeHistograms(TextBuffer* page, const statusSnapshot& snapshot) {
  head(page, "vesk_server_response_seconds", "histogram",
       "Time of served attempts, from the choice of the server to the last byte.");
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i)
    writeHistogramOf(page, snapshot.servers[i]);
}

static void writeMappings(TextBuffer* page, const statusSnapshot& snapshot) {
  constexpr const char* kName = "vesk_mapping_hits_total";
  // Thousands of series that say nothing would be a burden, and two of the same name
  // would make a scraper refuse all.
  head(page, kName, "counter", "Requests of a mapping, of those that had any.");
  for (std::int32_t i = 0; i < snapshot.mappingCount; ++i) {
    if (snapshot.mappings[i].hits == 0 || !isShownWhole(snapshot.mappings[i].pattern))
      continue;
    add(page, kName);
    add(page, "{mapping=");
    addLabel(page, snapshot.mappings[i].pattern);
    end(page, snapshot.mappings[i].hits);
  }
}

static void writeRequests(TextBuffer* page, const statusSnapshot& snapshot) {
  static constexpr struct {
    const char* word;
    std::int32_t kind;
  } kKinds[] = {{"served", kOutcomeServed},
                {"broken", kOutcomeBroken},
                {"failed", kOutcomeFailed},
                {"declined", kOutcomeDeclined}};
  head(page, "vesk_requests_total", "counter", "Requests by what became of them.");
  for (const auto& row : kKinds) {
    add(page, "vesk_requests_total{outcome=");
    addLabel(page, row.word);
    end(page, snapshot.requests[row.kind]);
  }
}

void writePrometheus(TextBuffer* page, const statusSnapshot& snapshot) {
  single(page, "vesk_up", "gauge", "1 when the connector has filled its table.",
         snapshot.filled ? 1 : 0);
  single(page, "vesk_processes", "gauge", "Processes of the web server that live.",
         snapshot.processes);
  single(page, "vesk_cluster_sequence", "gauge", "Number of the cluster's list.",
         snapshot.sequence);
  single(page, "vesk_servers", "gauge", "Servers that this process knows.",
         snapshot.serverCount);
  writeRequests(page, snapshot);
  for (const ServerMetric& metric : kServerMetrics)
    writeServerMetric(page, snapshot, metric);
  writeErrors(page, snapshot);
  writeHistograms(page, snapshot);
  writeMappings(page, snapshot);
  single(page, "vesk_table_lock_waits_total", "counter",
         "Requests that found the table taken.", snapshot.lockWaits);
  head(page, "vesk_table_lock_wait_seconds_total", "counter",
       "Time that they waited for it.");
  add(page, "vesk_table_lock_wait_seconds_total ");
  addSeconds(page, snapshot.lockMicros);
  add(page, "\n");
}
