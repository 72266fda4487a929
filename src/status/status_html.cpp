#include <algorithm>
#include <cstdio>
#include <cstring>
#include <numeric>

#include "proxy/proxy_settings.h"
#include "status/html_page.h"
#include "status/status_format.h"

// A browser is slow with thousands of rows; programs get them all.
constexpr std::int32_t kShownMappings = 200;

static void numberCell(TextBuffer* page, const char* label, std::int64_t number) {
  cell(page, label, "n");
  put(page, number, "</td>");
}

static std::uint32_t highest(const std::uint32_t* counts) {
  return std::max(1U, *std::max_element(counts, counts + kTrendSlots));
}

constexpr std::int64_t kTrendHeight = 36;

// The slot that still runs would end each line with a fall: it is left out.
static void addPoints(TextBuffer* page, const std::uint32_t* counts, std::uint32_t top) {
  constexpr std::int32_t kStep = 10;
  for (std::int32_t i = 0; i + 1 < kTrendSlots; ++i)
    put(page, i * kStep, ",", kTrendHeight + 2 - kTrendHeight * counts[i] / top, " ");
}

static void addTrend(TextBuffer* page, const serverCounters& counters, std::int64_t now) {
  std::uint32_t all[kTrendSlots];
  std::uint32_t errors[kTrendSlots];
  readTrend(counters.trend, now, all);
  readTrend(counters.errorTrend, now, errors);
  const std::uint32_t top = highest(all);
  put(page,
      "<svg viewBox=\"0 0 280 40\" preserveAspectRatio=\"none\" role=\"img\" "
      "aria-label=\"at most ",
      top, " requests in ", kTrendSeconds, " seconds\">");
  put(page, "<polygon class=\"err\" points=\"0,", kTrendHeight + 2, " ");
  addPoints(page, errors, top);
  put(page, "280,", kTrendHeight + 2, "\"/><polyline class=\"line\" points=\"");
  addPoints(page, all, top);
  put(page, "\"/></svg>");
}

static void addState(TextBuffer* page, const statusServer& server, std::int64_t now) {
  const char* state = stateWord(server);
  cell(page, "State");
  put(page, "<span><span class=\"state ", stateClass(state), "\">", state,
      "</span><small>");
  if (server.since > 0) {
    put(page, "for ");
    addAge(page, now - server.since);
  }
  if (server.retryIn > 0) put(page, ", retry in ", server.retryIn, "s");
  put(page, "</small></span></td>");
}

static void addErrors(TextBuffer* page, const serverCounters& counters) {
  const std::int64_t all = errorsOf(counters);
  cell(page, "Errors", all > 0 ? "n bad" : "n");
  put(page, "<span>", all);
  const char* separator = "<small>";
  for (std::int32_t i = 0; i < kErrorKinds; ++i) {
    if (counters.errors[i] == 0) continue;
    put(page, separator, errorKindWord(i), " ", counters.errors[i]);
    separator = "<br>";
  }
  put(page, all > 0 ? "</small></span></td>" : "</span></td>");
}

static void addTimes(TextBuffer* page, const serverCounters& counters) {
  static constexpr struct {
    const char* label;
    std::int32_t perMille;
  } kQuantiles[] = {{"p50", 500}, {"p90", 900}, {"p99", 990}};
  for (const auto& quantile : kQuantiles) {
    cell(page, quantile.label, "n");
    if (counters.served > 0) addMicros(page, timeQuantile(counters, quantile.perMille));
    put(page, "</td>");
  }
}

static void addAction(TextBuffer* page, const statusSnapshot& snapshot,
                      const statusServer& server) {
  cell(page, "");
  if (!snapshot.token) return put(page, "</td>");
  put(page, "<form method=\"post\" action=\"");
  addPath(page, snapshot.path);
  put(page, "\"><input type=\"hidden\" name=\"token\" value=\"", snapshot.token,
      "\"><input type=\"hidden\" name=\"server\" value=\"");
  addHtml(page, server.name);
  put(page, "\"><button name=\"action\" value=\"",
      server.drained ? "ready\">put back" : "drain\">drain", "</button></form></td>");
}

static void addServer(TextBuffer* page, const statusSnapshot& snapshot,
                      const statusServer& server) {
  const serverCounters& counters = server.counters;
  put(page, "<tr>");
  cell(page, "Server");
  put(page, "<span><code>");
  addHtml(page, server.name);
  put(page, "</code><small>");
  addHtml(page, server.replicationId);
  put(page, "</small></span></td>");
  addState(page, server, snapshot.now);
  cell(page, "Weight", "n");
  put(page, "<span>", server.weight, "<small>", algorithmName(server.algorithm),
      server.sticky ? ", sticky" : "", "</small></span></td>");
  numberCell(page, "Requests", attemptsOf(counters));
  addErrors(page, counters);
  numberCell(page, "Taken over", counters.takenOver);
  numberCell(page, "Active", server.running);
  numberCell(page, "Idle", server.idle);
  addTimes(page, counters);
  cell(page, "Five minutes");
  addTrend(page, counters, snapshot.now);
  put(page, "</td>");
  addAction(page, snapshot, server);
  put(page, "</tr>\n");
}

static void addServers(TextBuffer* page, const statusSnapshot& snapshot) {
  put(page, "<h2>Servers</h2>\n");
  if (snapshot.serverCount == 0) {
    put(page, "<p class=\"bad\">No server is known: ",
        snapshot.filled ? "none has joined."
                        : "the first request asks the bootstrap server.",
        "</p>\n");
    return;
  }
  beginTable(page, {"Server", "State", "#Weight", "#Requests", "#Errors", "#Taken over",
                    "#Active", "#Idle", "#p50", "#p90", "#p99", "Five minutes", ""});
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i)
    addServer(page, snapshot, snapshot.servers[i]);
  endTable(page);
}

static void addMappings(TextBuffer* page, const statusSnapshot& snapshot) {
  put(page, "<h2>Mappings, in the order in which they are tried</h2>\n");
  if (snapshot.mappingCount == 0) return put(page, "<p class=\"soft\">none</p>\n");
  beginTable(page, {"Pattern", "#Requests", "#Servers in service"});
  const std::int32_t shown = std::min(snapshot.mappingCount, kShownMappings);
  for (std::int32_t i = 0; i < shown; ++i) {
    const statusMapping& mapping = snapshot.mappings[i];
    put(page, "<tr>");
    cell(page, "Pattern");
    put(page, "<code>");
    addHtml(page, mapping.pattern);
    put(page, "</code></td>");
    numberCell(page, "Requests", mapping.hits);
    cell(page, "Servers", mapping.active > 0 ? "n" : "n bad");
    put(page, mapping.active, " of ", mapping.servers, "</td></tr>\n");
  }
  endTable(page);
  if (shown < snapshot.mappingCount)
    put(page, "<p class=\"soft\">and ", snapshot.mappingCount - shown,
        " more in the JSON form</p>\n");
}

static const char* eventClass(const char* text) {
  if (std::strstr(text, " UP ")) return "log good";  // it counts what has failed, too
  return std::strstr(text, " DOWN ") || std::strstr(text, " failed") ? "log bad" : "log";
}

static void addJournal(TextBuffer* page, const statusSnapshot& snapshot) {
  put(page, "<h2>Journal</h2>\n");
  if (snapshot.eventCount == 0) {
    put(page,
        "<p class=\"soft\">Nothing has happened, or the option events isn't on."
        "</p>\n");
    return;
  }
  beginTable(page, {"When", "What"});
  for (std::int32_t i = snapshot.eventCount; i-- > 0;) {
    put(page, "<tr>");
    cell(page, "", "soft log when");
    addTime(page, snapshot.events[i].time);
    put(page, "</td>");
    cell(page, "", eventClass(snapshot.events[i].text));
    addHtml(page, snapshot.events[i].text);
    put(page, "</td></tr>\n");
  }
  endTable(page);
}

static void addOptions(TextBuffer* page, const statusSnapshot& snapshot) {
  put(page, "<h2>Options in force</h2>\n");
  beginTable(page, {"Option", "Value"});
  for (std::int32_t i = 0; i < snapshot.optionCount; ++i) {
    put(page, "<tr>");
    cell(page, "");
    put(page, "<code>", snapshot.options[i].name, "</code></td>");
    cell(page, "");
    put(page, "<code>");
    addHtml(page, snapshot.options[i].value);
    put(page, "</code></td></tr>\n");
  }
  endTable(page);
}

static void tile(TextBuffer* page, const char* label, const char* classes,
                 std::int64_t number) {
  put(page, "<div class=\"tile\"><b class=\"", classes, "\">", number, "</b><span>",
      label, "</span></div>");
}

struct Totals {
  std::int64_t up;
  std::int64_t listed;
  std::int64_t running;
  std::int64_t errors;
  std::int64_t takenOver;
  std::int64_t lastMinute;  // attempts, without the slot that still runs
};

static Totals totalsOf(const statusSnapshot& snapshot) {
  constexpr std::int32_t kMinuteSlots = 60 / kTrendSeconds;
  Totals totals{};
  for (std::int32_t i = 0; i < snapshot.serverCount; ++i) {
    const statusServer& server = snapshot.servers[i];
    std::uint32_t counts[kTrendSlots];
    readTrend(server.counters.trend, snapshot.now, counts);
    totals.up += server.state == kServerUp ? 1 : 0;
    totals.listed += server.state == kServerGone ? 0 : 1;
    totals.running += server.running;
    totals.errors += errorsOf(server.counters);
    totals.takenOver += server.counters.takenOver;
    const std::uint32_t* running = counts + kTrendSlots - 1;
    totals.lastMinute +=
        std::accumulate(running - kMinuteSlots, running, std::int64_t{0});
  }
  return totals;
}

static void addTiles(TextBuffer* page, const statusSnapshot& snapshot,
                     const Totals& totals) {
  put(page, "<div class=\"tiles\"><div class=\"tile\"><b class=\"",
      totals.up == totals.listed && totals.up > 0 ? "good" : "bad", "\">", totals.up,
      " of ", totals.listed, "</b><span>servers up</span></div>");
  tile(page, "attempts in the last minute", "", totals.lastMinute);
  tile(page, "requests served", "", snapshot.requests[kOutcomeServed]);
  const std::int64_t lost =
      snapshot.requests[kOutcomeFailed] + snapshot.requests[kOutcomeBroken];
  tile(page, "requests failed or broken", lost > 0 ? "bad" : "", lost);
  tile(page, "attempts taken over", totals.takenOver > 0 ? "warn" : "", totals.takenOver);
  tile(page, "active now", "", totals.running);
  if (snapshot.sequence != 0)  // else it is asked for with the next answer
    tile(page, "number of the cluster's list", "", snapshot.sequence);
  put(page, "<div class=\"tile\"><b>", snapshot.lockWaits,
      "</b><span>waits for the table, ");
  addMicros(page, snapshot.lockMicros);
  put(page, " in all</span></div></div>\n");
}

static void addHeading(TextBuffer* page, const statusSnapshot& snapshot) {
  put(page, "<h1>Vesk connector</h1><p class=\"soft\">", snapshot.version, ", process ",
      snapshot.pid);
  if (snapshot.processes > 1) put(page, ", one of ", snapshot.processes);
  put(page,
      snapshot.shared ? "; counts of all processes since " : "; its own counts since ");
  addTime(page, snapshot.started);
  put(page, "; now ");
  addTime(page, snapshot.now);
  put(page, "</p>\n");
}

static void addExplainForm(TextBuffer* page, const statusSnapshot& snapshot) {
  put(page, "<h2>Which mapping takes a URL?</h2><form action=\"");
  addHtml(page, snapshot.path);
  put(page,
      "/explain\"><input type=\"text\" name=\"url\" value=\"/\" aria-label=\"URL\"> "
      "<button>explain</button></form>\n");
}

static void addForms(TextBuffer* page) {
  put(page,
      "<p class=\"soft\">The same as <a href=\"?format=json\">JSON</a>, "
      "<a href=\"?format=prometheus\">Prometheus</a>, <a href=\"?format=csv\">CSV</a>; "
      "<a href=\"?refresh=0\">stand still</a></p>\n");
}

void writeHtml(TextBuffer* page, const statusSnapshot& snapshot) {
  const Totals totals = totalsOf(snapshot);
  char title[80];
  (void)std::snprintf(title, sizeof title, "Vesk: %lld of %lld servers up",
                      static_cast<long long>(totals.up),
                      static_cast<long long>(totals.listed));
  beginPage(page, title, snapshot.refresh);
  addHeading(page, snapshot);
  addTiles(page, snapshot, totals);
  addServers(page, snapshot);
  addJournal(page, snapshot);
  addMappings(page, snapshot);
  addExplainForm(page, snapshot);
  addOptions(page, snapshot);
  addForms(page);
  endPage(page);
}
