#include "proxy/proxy_settings.h"
#include "status/explain_page.h"
#include "status/explain_words.h"
#include "status/json_parts.h"

static void writeWords(TextBuffer* page, const char* name, const ExplainWords& words) {
  jsonText(page, name, words.word);
  add(page, ",\"sentence\":");
  addJson(page, words.sentence);
}

static void writeMappings(TextBuffer* page, const Explanation& explained) {
  add(page, ",\n\"mappings\":[");
  for (std::int32_t i = 0; i < explained.lookedAt; ++i) {
    jsonComma(page, i);
    add(page, "\n{");
    jsonText(page, "pattern", explained.mappings[i].pattern);
    jsonComma(page);
    writeWords(page, "result", wordsOf(explained.mappings[i].match));
    add(page, "}");
  }
  add(page, "],\n");
}

static const char* ownerOf(const Explanation& explained) {
  for (std::int32_t i = 0; i < explained.serverCount; ++i)
    if (explained.servers[i].ownsSession) return explained.servers[i].name;
  return nullptr;
}

static void writeBuddies(TextBuffer* page, const Explanation& explained) {
  std::int64_t count = 0;
  add(page, ",\"buddies\":[");
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    if (explained.servers[i].buddyRank == 0) continue;
    jsonComma(page, count++);
    addJson(page, explained.servers[i].name);
  }
  add(page, "],");
}

static void writeSession(TextBuffer* page, const Explanation& explained) {
  add(page, ",\n\"session\":");
  if (!explained.hasSession) return add(page, "null");
  add(page, "{");
  jsonText(page, "id", explained.session);
  jsonComma(page);
  jsonText(page, "owner", ownerOf(explained));
  writeBuddies(page, explained);
  jsonTruth(page, "any_buddy", explained.anyBuddyRank > 0);
  jsonComma(page);
  jsonTruth(page, "broken", explained.choice.sessionBroken);
  add(page, "}");
}

static void writeServer(TextBuffer* page, const Explanation& explained,
                        const ExplainedServer& server) {
  add(page, "\n{");
  jsonText(page, "server", server.name);
  jsonComma(page);
  jsonText(page, "rep_id", server.replicationId);
  jsonComma(page);
  jsonNumber(page, "weight", server.weight);
  jsonComma(page);
  jsonTruth(page, "active", server.active);
  jsonComma(page);
  jsonTruth(page, "in_service", server.inService);
  jsonComma(page);
  jsonTruth(page, "draining", server.drained);
  if (explained.totalWeight > 0) {
    jsonComma(page);
    jsonNumber(page, "share", static_cast<std::int64_t>(server.share));
  }
  add(page, "}");
}

static void writeServers(TextBuffer* page, const Explanation& explained) {
  add(page, ",\n\"servers\":[");
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    jsonComma(page, i);
    writeServer(page, explained, explained.servers[i]);
  }
  add(page, "],\n\"attempts\":[");
  for (std::int32_t i = 0; i < explained.attemptCount; ++i) {
    const ExplainedAttempt& attempt = explained.attempts[i];
    jsonComma(page, i);
    add(page, "\n{");
    jsonText(page, "server", explained.servers[attempt.server].name);
    jsonComma(page);
    writeWords(page, "reason", wordsOf(attempt.reason));
    add(page, "}");
  }
  add(page, "]");
}

static void writeChoice(TextBuffer* page, const Explanation& explained) {
  writeSession(page, explained);
  jsonComma(page);
  jsonText(page, "algorithm", algorithmName(explained.algorithm));
  jsonComma(page);
  jsonTruth(page, "sticky", explained.sticky);
  add(page, ",\"choice\":{");
  writeWords(page, "reason", wordsOf(explained.choice.reason));
  add(page, "}");
  writeServers(page, explained);
  jsonComma(page);
  jsonTruth(page, "repeatable", explained.repeatable);
}

void writeExplanationJson(TextBuffer* page, const ExplainedUrl& asked,
                          const Explanation& explained) {
  const bool taken = explained.winner >= 0;
  add(page, "{");
  jsonText(page, "uri", asked.url);
  jsonComma(page);
  jsonText(page, "host", asked.host);
  writeMappings(page, explained);
  jsonNumber(page, "mapping_count", explained.mappingCount);
  jsonComma(page);
  jsonText(page, "winner",
           taken ? explained.mappings[explained.winner].pattern : nullptr);
  if (taken) writeChoice(page, explained);
  add(page, ",\"end\":{");
  writeWords(page, "reason", wordsOf(explained.end));
  add(page, "}}\n");
}
