// A watch of a web server's status page.

#include <cstdio>
#include <map>
#include <stdexcept>

#include "context/event_text.h"
#include "ctl/clock_text.h"
#include "ctl/fetch_url.h"
#include "ctl/watch_source.h"

namespace ctl {

// Counts of one server at one look, from which the next one makes rates.
struct Counted {
  std::int64_t time = 0;  // of the web server, seconds
  std::int64_t requests = 0;
};

class StatusPageSource : public WatchSource {
 public:
  StatusPageSource(const std::string& page, double limit)
      : url(withParameter(page, "format=json")), timeout(limit) {}
  View look() override;

 private:
  [[nodiscard]] std::vector<Cell> rowOf(const Json& server, std::int64_t now);
  [[nodiscard]] std::string rateOf(const std::string& name, const Counted& counted);

  std::string url;
  double timeout;
  std::map<std::string, Counted> before;  // by server
};

static std::int64_t numberOf(const Json& from, const char* name) {
  return from.value(name, std::int64_t{0});
}

static Cell timeCell(const Json& times, const char* name) {
  constexpr double kMillis = 1000;
  return {millisText(times.value(name, 0.0) * kMillis)};
}

static Cell stateCell(const Json& server) {
  const std::string state = server.value("state", "");
  const std::int64_t retry = numberOf(server, "retryInSeconds");
  Colour colour = Colour::warning;
  if (state == "up") colour = Colour::good;
  if (state == "down") colour = Colour::bad;
  if (state == "gone") colour = Colour::faint;
  const bool waits = state == "down" && retry > 0;
  return {visible(state) + (waits ? ", tried in " + durationText(retry) : ""), colour};
}

static std::int64_t errorsOf(const Json& server) {
  std::int64_t sum = 0;
  for (const Json& count : server.value("errors", Json::object()))
    sum += count.get<std::int64_t>();
  return sum;
}

std::string StatusPageSource::rateOf(const std::string& name, const Counted& counted) {
  const Counted last = before.contains(name) ? before[name] : counted;
  before[name] = counted;
  const std::int64_t seconds = counted.time - last.time;
  // Counts that fell belong to a web server that was started anew.
  if (seconds <= 0 || counted.requests < last.requests) return "-";
  char text[32];
  (void)std::snprintf(text, sizeof text, "%.1f",
                      static_cast<double>(counted.requests - last.requests) /
                          static_cast<double>(seconds));
  return text;
}

std::vector<Cell> StatusPageSource::rowOf(const Json& server, std::int64_t now) {
  constexpr std::size_t kMostName = 64;
  const std::string name = server.value("server", "");
  const std::int64_t requests = numberOf(server, "requests");
  const std::int64_t errors = errorsOf(server);
  const std::int64_t since = numberOf(server, "since");
  const Json times = server.value("responseSeconds", Json::object());
  return {{visible(name, kMostName)},
          stateCell(server),
          {since > 0 ? durationText(now - since) : "-"},
          {std::to_string(numberOf(server, "weight"))},
          {std::to_string(requests)},
          {rateOf(name, {now, requests})},
          {std::to_string(errors), errors > 0 ? Colour::warning : Colour::plain},
          {std::to_string(numberOf(server, "active"))},
          {std::to_string(numberOf(server, "idle"))},
          timeCell(times, "p50"),
          timeCell(times, "p99")};
}

static std::string summaryOf(const Json& page) {
  const Json requests = page.value("requests", Json::object());
  std::string text = "process " + std::to_string(numberOf(page, "pid"));
  const std::int64_t processes = numberOf(page, "processes");
  if (processes > 1) text += " of " + std::to_string(processes);
  const Json cluster = page.value("cluster", Json::object());
  text += ", list " + std::to_string(numberOf(cluster, "sequence")) + "; requests";
  for (const char* name : {"served", "broken", "failed", "declined"})
    text += std::string(" ") + name + " " + std::to_string(numberOf(requests, name));
  return text;
}

static std::string eventLine(const Json& event) {
  return clockText(numberOf(event, "time")) + " " +
         visible(event.value("text", ""), kEventTextSize);
}

// What isn't the page of a connector lacks a member, or has one of another kind.
View StatusPageSource::look() {
  View view;
  try {
    view.json = parsePeerJson(fetchUrl(url, timeout));
    view.summary = summaryOf(view.json);
    view.servers.add(titles({"SERVER", "STATE", "SINCE", "WEIGHT", "REQUESTS", "PER S",
                             "ERRORS", "ACTIVE", "IDLE", "P50 MS", "P99 MS"}));
    for (const Json& server : view.json.at("servers"))
      view.servers.add(rowOf(server, numberOf(view.json, "time")));
    for (const Json& event : view.json.value("events", Json::array()))
      view.news.push_back(eventLine(event));
  } catch (const Json::exception&) {
    view.failure = visible(url) + ": not the status page of a connector";
  } catch (const std::runtime_error& error) {
    view.failure = error.what();
  }
  return view;
}

std::unique_ptr<WatchSource> watchStatusPage(const std::string& url, double timeout) {
  return std::make_unique<StatusPageSource>(url, timeout);
}

}  // namespace ctl
