#include <algorithm>
#include <cstring>

#include "status/status_format.h"

// The names that HAProxy's statistics have, where a column means the same; what has no
// such name stands behind them.
static constexpr char kHead[] =
    "# pxname,svname,scur,stot,econ,eresp,cli_abrt,wredis,status,weight,lastchg,pid,"
    "idle_conn_cur,drain,replication_id,mappings,served,p50_us,p90_us,p99_us\n";

static const char* statusWord(const statusServer& server) {
  switch (server.state) {
    case kServerUp:
      return server.drained ? "DRAIN" : "UP";
    case kServerDown:
      return "DOWN";
    default:
      return "MAINT";  // not on the cluster's list, or not yet
  }
}

static std::int64_t errorsBy(const serverCounters& counters, char letter) {
  return counters.errors[std::strchr(kErrorLetters, letter) - kErrorLetters];
}

static void cell(TextBuffer* page, std::int64_t number) {
  addNumber(page, number);
  add(page, ",");
}

static void cell(TextBuffer* page, const char* text) {
  addCell(page, text);
  add(page, ",");
}

static void writeRow(TextBuffer* page, const statusSnapshot& snapshot,
                     const statusServer& server) {
  const serverCounters& counters = server.counters;
  const std::int64_t refused = errorsBy(counters, 'R');
  const std::int64_t aborted = errorsBy(counters, 'C');
  cell(page, "vesk");
  cell(page, server.name);
  cell(page, server.running);
  cell(page, attemptsOf(counters));
  cell(page, refused);
  cell(page, errorsOf(counters) - refused - aborted);
  cell(page, aborted);
  cell(page, counters.takenOver);
  cell(page, statusWord(server));
  cell(page, server.weight);
  cell(page,
       server.since > 0 ? std::max<std::int64_t>(0, snapshot.now - server.since) : 0);
  cell(page, snapshot.pid);
  cell(page, server.idle);
  cell(page, server.drained ? 1 : 0);
  cell(page, server.replicationId);
  cell(page, server.mappings);
  cell(page, counters.served);
  cell(page, timeQuantile(counters, 500));
  cell(page, timeQuantile(counters, 900));
  addNumber(page, timeQuantile(counters, 990));
  add(page, "\n");
}

void writeCsv(TextBuffer* page, const statusSnapshot& snapshot) {
  add(page, kHead);
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i)
    writeRow(page, snapshot, snapshot.servers[i]);
}
