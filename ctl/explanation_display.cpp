#include "ctl/explanation_display.h"

#include "ctl/display.h"
#include "proxy/proxy_settings.h"
#include "status/explain_words.h"

namespace ctl {

// Mappings of one reason in a row that are shown before the rest is counted.
constexpr std::int32_t kMostAlike = 8;

// --- for people -----------------------------------------------------------------------

static Colour colourOf(PatternMatch match) {
  return match == PatternMatch::matched ? Colour::good : Colour::faint;
}

static void addMapping(const ExplainedMapping& mapping, Table* rows) {
  const ExplainWords words = wordsOf(mapping.match);
  rows->add({{"  "},
             {visible(mapping.pattern), colourOf(mapping.match)},
             {words.word, colourOf(mapping.match)},
             {words.sentence, colourOf(mapping.match)}});
}

// How many mappings from `from` on failed for the same reason.
static std::int32_t countAlike(const Explanation& explained, std::int32_t from) {
  std::int32_t end = from;
  while (end < explained.lookedAt &&
         explained.mappings[end].match == explained.mappings[from].match)
    ++end;
  return end - from;
}

static std::string mappingText(const Explanation& explained, bool all) {
  Table rows;
  for (std::int32_t i = 0; i < explained.lookedAt;) {
    const std::int32_t alike = countAlike(explained, i);
    const bool cut = !all && alike > kMostAlike;
    const std::int32_t shown = cut ? kMostAlike - 1 : alike;
    for (std::int32_t k = 0; k < shown; ++k) addMapping(explained.mappings[i + k], &rows);
    if (cut)
      rows.add(
          {{"  "}, {"..."}, {"and " + std::to_string(alike - shown) + " more alike"}});
    i += alike;
  }
  return "Mappings, in the order in which they are tried (" +
         std::to_string(explained.lookedAt) + " of " +
         std::to_string(explained.mappingCount) + " looked at):\n" + rows.text();
}

static std::string ownerText(const Explanation& explained) {
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    const ExplainedServer& server = explained.servers[i];
    if (!server.ownsSession) continue;
    return "owned by " + visible(server.name) +
           (server.inService ? "" : ", which is out of service");
  }
  return "owned by no server of the mapping";
}

// In the order of the id; a '*' stands for any server.
static std::string buddyText(const Explanation& explained) {
  std::string text;
  for (std::int32_t rank = 1; rank <= kMaxProxies; ++rank) {
    for (std::int32_t i = 0; i < explained.serverCount; ++i) {
      if (explained.servers[i].buddyRank == rank)
        text += (text.empty() ? "" : ", ") + visible(explained.servers[i].name);
    }
    if (explained.anyBuddyRank == rank)
      text += text.empty() ? "any server" : ", any server";
  }
  return text.empty() ? "no buddies" : "buddies " + text;
}

static std::string sessionText(const Explanation& explained) {
  if (!explained.hasSession) return "Session: none\n";
  std::string text = "Session: " + visible(explained.session) + ", " +
                     ownerText(explained) + "; " + buddyText(explained) + "\n";
  if (!explained.sticky)
    text += "  It doesn't count: the mapping's sessions don't stay with their servers.\n";
  if (explained.choice.sessionBroken)
    text += "  Neither owner nor buddies can serve: the session breaks.\n";
  return text;
}

static std::string shareText(const Explanation& explained,
                             const ExplainedServer& server) {
  if (explained.totalWeight == 0) return "";
  constexpr double kPercent = 100;
  char text[32];
  (void)std::snprintf(text, sizeof text, " (%.1f %%)",
                      kPercent * static_cast<double>(server.share) /
                          static_cast<double>(explained.totalWeight));
  return text;
}

static Cell stateCell(const ExplainedServer& server) {
  if (!server.inService) return {"out of service", Colour::bad};
  if (server.drained) return {"drained", Colour::warning};
  if (!server.active) return {"left this mapping", Colour::warning};
  return {"in service", Colour::good};
}

static std::string serverText(const Explanation& explained) {
  Table rows;
  rows.add({{"  "},
            {"SERVER", Colour::faint},
            {"STATE", Colour::faint},
            {"REP_ID", Colour::faint},
            {"WEIGHT", Colour::faint}});
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    const ExplainedServer& server = explained.servers[i];
    rows.add({{"  "},
              {visible(server.name)},
              stateCell(server),
              {server.replicationId[0] ? visible(server.replicationId) : "-"},
              {std::to_string(server.weight) + shareText(explained, server)}});
  }
  return std::string("Servers of the mapping, balanced by ") +
         algorithmName(explained.algorithm) +
         (explained.sticky ? ", sessions stay:\n" : ", sessions don't stay:\n") +
         rows.text();
}

static std::string attemptText(const Explanation& explained) {
  Table rows;
  for (std::int32_t i = 0; i < explained.attemptCount; ++i) {
    const ExplainedAttempt& attempt = explained.attempts[i];
    rows.add({{"  " + std::to_string(i + 1) + "."},
              {visible(explained.servers[attempt.server].name),
               i == 0 ? Colour::good : Colour::plain},
              {wordsOf(attempt.reason).sentence}});
  }
  if (explained.attemptCount == 0)
    rows.add({{"  -"}, {wordsOf(explained.choice.reason).sentence}});
  rows.add({{"  -"}, {wordsOf(explained.end).sentence}});
  std::string text =
      "Who serves, and who would be tried next if it refused:\n" + rows.text();
  if (!explained.repeatable)
    text +=
        "  A server that may have read the request is the last: its method isn't sent "
        "twice.\n";
  return text;
}

std::string textOf(const Explanation& explained, bool all) {
  std::string text = mappingText(explained, all);
  if (explained.winner < 0)
    return text + "No mapping takes it: the web server serves it itself.\n";
  return text + sessionText(explained) + serverText(explained) + attemptText(explained);
}

// --- for programs
// -----------------------------------------------------------------------

static Json mappingsJson(const Explanation& explained) {
  Json list = Json::array();
  for (std::int32_t i = 0; i < explained.lookedAt; ++i) {
    const ExplainedMapping& mapping = explained.mappings[i];
    list.push_back(
        {{"pattern", mapping.pattern}, {"result", wordsOf(mapping.match).word}});
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
                {"in_service", server.inService}, {"drained", server.drained}};
    if (explained.totalWeight > 0) one["share"] = server.share;
    list.push_back(std::move(one));
  }
  return list;
}

static Json attemptsJson(const Explanation& explained) {
  Json list = Json::array();
  for (std::int32_t i = 0; i < explained.attemptCount; ++i) {
    const ExplainedAttempt& attempt = explained.attempts[i];
    list.push_back({{"server", explained.servers[attempt.server].name},
                    {"reason", wordsOf(attempt.reason).word}});
  }
  return list;
}

Json jsonOf(const Explanation& explained) {
  Json all = {{"mappings", mappingsJson(explained)},
              {"mapping_count", explained.mappingCount},
              {"winner", Json()}};
  all["end"] = wordsOf(explained.end).word;
  if (explained.winner < 0) return all;
  all["winner"] = explained.mappings[explained.winner].pattern;
  all["session"] = sessionJson(explained);
  all["algorithm"] = algorithmName(explained.algorithm);
  all["sticky"] = explained.sticky;
  all["choice"] = wordsOf(explained.choice.reason).word;
  all["servers"] = serversJson(explained);
  all["attempts"] = attemptsJson(explained);
  all["repeatable"] = explained.repeatable;
  return all;
}

}  // namespace ctl
