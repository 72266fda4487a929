#include "ctl/explanation_display.h"

#include "ctl/display.h"
#include "proxy/proxy_settings.h"
#include "status/explain_words.h"

namespace ctl {

// Mappings of one reason in a row that are shown before the rest is counted.
constexpr std::size_t kMostAlike = 8;

// --- for programs
// -----------------------------------------------------------------------

static Json reasonOf(const ExplainWords& words) {
  return {{"reason", words.word}, {"sentence", words.sentence}};
}

static Json mappingsJson(const Explanation& explained) {
  Json list = Json::array();
  for (std::int32_t i = 0; i < explained.lookedAt; ++i) {
    const ExplainWords words = wordsOf(explained.mappings[i].match);
    list.push_back({{"pattern", explained.mappings[i].pattern},
                    {"result", words.word},
                    {"sentence", words.sentence}});
  }
  return list;
}

static Json sessionJson(const Explanation& explained) {
  if (!explained.hasSession) return {};
  Json session = {
      {"id", explained.session}, {"owner", Json()}, {"buddies", Json::array()}};
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    const ExplainedServer& server = explained.servers[i];
    if (server.ownsSession) session["owner"] = server.name;
    if (server.buddyRank > 0) session["buddies"].push_back(server.name);
  }
  session["any_buddy"] = explained.anyBuddyRank > 0;
  session["broken"] = explained.choice.sessionBroken;
  return session;
}

static Json serversJson(const Explanation& explained) {
  Json list = Json::array();
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    const ExplainedServer& server = explained.servers[i];
    Json one = {{"server", server.name},          {"rep_id", server.replicationId},
                {"weight", server.weight},        {"active", server.active},
                {"in_service", server.inService}, {"draining", server.drained}};
    if (explained.totalWeight > 0) one["share"] = server.share;
    list.push_back(std::move(one));
  }
  return list;
}

static Json attemptsJson(const Explanation& explained) {
  Json list = Json::array();
  for (std::int32_t i = 0; i < explained.attemptCount; ++i) {
    const ExplainedAttempt& attempt = explained.attempts[i];
    Json one = {{"server", explained.servers[attempt.server].name}};
    one.update(reasonOf(wordsOf(attempt.reason)));
    list.push_back(std::move(one));
  }
  return list;
}

Json jsonOf(const Explanation& explained) {
  Json all = {{"mappings", mappingsJson(explained)},
              {"mapping_count", explained.mappingCount},
              {"winner", Json()}};
  if (explained.winner >= 0) {
    all["winner"] = explained.mappings[explained.winner].pattern;
    all["session"] = sessionJson(explained);
    all["algorithm"] = algorithmName(explained.algorithm);
    all["sticky"] = explained.sticky;
    all["choice"] = reasonOf(wordsOf(explained.choice.reason));
    all["servers"] = serversJson(explained);
    all["attempts"] = attemptsJson(explained);
    all["repeatable"] = explained.repeatable;
  }
  all["end"] = reasonOf(wordsOf(explained.end));
  return all;
}

// --- for people
// -------------------------------------------------------------------------

// A text of the explanation, made harmless.
static std::string shown(const Json& from, const char* name) {
  return visible(from.at(name).get<std::string>());
}

static bool isOn(const Json& from, const char* name) {
  return from.value(name, false);
}

static void addMapping(const Json& mapping, Table* rows) {
  const std::string result = shown(mapping, "result");
  const Colour colour = result == "matched" ? Colour::good : Colour::faint;
  rows->add({{"  "},
             {shown(mapping, "pattern"), colour},
             {result, colour},
             {shown(mapping, "sentence"), colour}});
}

// How many mappings from `from` on failed for the same reason.
static std::size_t countAlike(const Json& mappings, std::size_t from) {
  std::size_t end = from;
  while (end < mappings.size() &&
         mappings[end].at("result") == mappings[from].at("result"))
    ++end;
  return end - from;
}

static std::string mappingText(const Json& explained, bool all) {
  const Json& mappings = explained.at("mappings");
  Table rows;
  for (std::size_t i = 0; i < mappings.size();) {
    const std::size_t alike = countAlike(mappings, i);
    const bool cut = !all && alike > kMostAlike;
    const std::size_t count = cut ? kMostAlike - 1 : alike;
    for (std::size_t k = 0; k < count; ++k) addMapping(mappings[i + k], &rows);
    if (cut)
      rows.add(
          {{"  "}, {"..."}, {"and " + std::to_string(alike - count) + " more alike"}});
    i += alike;
  }
  return "Mappings, in the order in which they are tried (" +
         std::to_string(mappings.size()) + " of " +
         std::to_string(explained.at("mapping_count").get<std::int64_t>()) +
         " looked at):\n" + rows.text();
}

static std::string ownerText(const Json& explained) {
  const Json& owner = explained.at("session").at("owner");
  if (owner.is_null()) return "owned by no server of the mapping";
  std::string text = "owned by " + visible(owner.get<std::string>());
  for (const Json& server : explained.at("servers")) {
    if (server.at("server") == owner && !isOn(server, "in_service"))
      text += ", which is out of service";
  }
  return text;
}

static std::string buddyText(const Json& session) {
  std::string text;
  for (const Json& buddy : session.at("buddies"))
    text += (text.empty() ? "" : ", ") + visible(buddy.get<std::string>());
  if (isOn(session, "any_buddy")) text += text.empty() ? "any server" : ", any server";
  return text.empty() ? "no buddies" : "buddies " + text;
}

static std::string sessionText(const Json& explained) {
  const Json& session = explained.at("session");
  if (session.is_null()) return "Session: none\n";
  std::string text = "Session: " + shown(session, "id") + ", " + ownerText(explained) +
                     "; " + buddyText(session) + "\n";
  if (!isOn(explained, "sticky"))
    text += "  It doesn't count: the mapping's sessions don't stay with their servers.\n";
  if (isOn(session, "broken"))
    text += "  Neither owner nor buddies can serve: the session breaks.\n";
  return text;
}

// The part of all requests that a draw gives to a server.
static std::string shareText(const Json& explained, const Json& server) {
  double total = 0;
  for (const Json& one : explained.at("servers")) total += one.value("share", 0.0);
  if (total == 0) return "";
  constexpr double kPercent = 100;
  char text[32];
  (void)std::snprintf(text, sizeof text, " (%.1f %%)",
                      kPercent * server.value("share", 0.0) / total);
  return text;
}

static Cell stateCell(const Json& server) {
  if (!isOn(server, "in_service")) return {"out of service", Colour::bad};
  if (isOn(server, "draining")) return {"drained", Colour::warning};
  if (!isOn(server, "active")) return {"left this mapping", Colour::warning};
  return {"in service", Colour::good};
}

static std::string serverText(const Json& explained) {
  Table rows;
  rows.add({{"  "},
            {"SERVER", Colour::faint},
            {"STATE", Colour::faint},
            {"REP_ID", Colour::faint},
            {"WEIGHT", Colour::faint}});
  for (const Json& server : explained.at("servers")) {
    const std::string id = shown(server, "rep_id");
    rows.add({{"  "},
              {shown(server, "server")},
              stateCell(server),
              {id.empty() ? "-" : id},
              {std::to_string(server.at("weight").get<std::int64_t>()) +
               shareText(explained, server)}});
  }
  return "Servers of the mapping, balanced by " + shown(explained, "algorithm") +
         (isOn(explained, "sticky") ? ", sessions stay:\n" : ", sessions don't stay:\n") +
         rows.text();
}

static std::string attemptText(const Json& explained) {
  Table rows;
  int number = 0;
  for (const Json& attempt : explained.at("attempts")) {
    const Colour colour = ++number == 1 ? Colour::good : Colour::plain;
    rows.add({{"  " + std::to_string(number) + "."},
              {shown(attempt, "server"), colour},
              {shown(attempt, "sentence")}});
  }
  if (number == 0) rows.add({{"  -"}, {shown(explained.at("choice"), "sentence")}});
  rows.add({{"  -"}, {shown(explained.at("end"), "sentence")}});
  std::string text = "Who serves, and who would be tried next if it refused:\n";
  text += rows.text();
  if (!isOn(explained, "repeatable"))
    text +=
        "  A server that may have read the request is the last: its method isn't sent "
        "twice.\n";
  return text;
}

std::string textOf(const Json& explained, bool all) {
  const std::string text = mappingText(explained, all);
  if (explained.at("winner").is_null())
    return text + "No mapping takes it: the web server serves it itself.\n";
  return text + sessionText(explained) + serverText(explained) + attemptText(explained);
}

}  // namespace ctl
