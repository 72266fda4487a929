#include "proxy/proxy_settings.h"
#include "status/explain_page.h"
#include "status/explain_words.h"
#include "status/json_parts.h"

static void writeWords(TextBuffer* page, const char* name, const ExplainWords& words) {
  jsonText(page, name, words.word);
  jsonText(page, "sentence", words.sentence);
}

static void writeMappings(TextBuffer* page, const Explanation& explained) {
  jsonOpen(page, "mappings", '[');
  for (std::int32_t i = 0; i < explained.lookedAt; ++i) {
    jsonOpen(page, nullptr, '{');
    jsonText(page, "pattern", explained.mappings[i].pattern);
    writeWords(page, "result", wordsOf(explained.mappings[i].match));
    jsonClose(page, '}');
  }
  jsonClose(page, ']');
}

static const char* ownerOf(const Explanation& explained) {
  for (std::int32_t i = 0; i < explained.serverCount; ++i)
    if (explained.servers[i].ownsSession) return explained.servers[i].name;
  return nullptr;
}

static void writeBuddies(TextBuffer* page, const Explanation& explained) {
  jsonOpen(page, "buddies", '[');
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    if (explained.servers[i].buddyRank == 0) continue;
    jsonText(page, nullptr, explained.servers[i].name);
  }
  jsonClose(page, ']');
}

static void writeSession(TextBuffer* page, const Explanation& explained) {
  if (!explained.hasSession) return jsonText(page, "session", nullptr);
  jsonOpen(page, "session", '{');
  jsonText(page, "id", explained.session);
  jsonText(page, "owner", ownerOf(explained));
  writeBuddies(page, explained);
  jsonTruth(page, "any_buddy", explained.anyBuddyRank > 0);
  jsonTruth(page, "broken", explained.choice.sessionBroken);
  jsonClose(page, '}');
}

static void writeServer(TextBuffer* page, const Explanation& explained,
                        const ExplainedServer& server) {
  jsonOpen(page, nullptr, '{');
  jsonText(page, "server", server.name);
  jsonText(page, "rep_id", server.replicationId);
  jsonNumber(page, "weight", server.weight);
  jsonTruth(page, "active", server.active);
  jsonTruth(page, "in_service", server.inService);
  jsonTruth(page, "draining", server.drained);
  if (explained.totalWeight > 0) {
    jsonNumber(page, "share", static_cast<std::int64_t>(server.share));
  }
  jsonClose(page, '}');
}

static void writeServers(TextBuffer* page, const Explanation& explained) {
  jsonOpen(page, "servers", '[');
  for (std::int32_t i = 0; i < explained.serverCount; ++i) {
    writeServer(page, explained, explained.servers[i]);
  }
  jsonClose(page, ']');
  jsonOpen(page, "attempts", '[');
  for (std::int32_t i = 0; i < explained.attemptCount; ++i) {
    const ExplainedAttempt& attempt = explained.attempts[i];
    jsonOpen(page, nullptr, '{');
    jsonText(page, "server", explained.servers[attempt.server].name);
    writeWords(page, "reason", wordsOf(attempt.reason));
    jsonClose(page, '}');
  }
  jsonClose(page, ']');
}

static void writeChoice(TextBuffer* page, const Explanation& explained) {
  writeSession(page, explained);
  jsonText(page, "algorithm", algorithmName(explained.algorithm));
  jsonTruth(page, "sticky", explained.sticky);
  jsonOpen(page, "choice", '{');
  writeWords(page, "reason", wordsOf(explained.choice.reason));
  jsonClose(page, '}');
  writeServers(page, explained);
  jsonTruth(page, "repeatable", explained.repeatable);
}

void writeExplanationJson(TextBuffer* page, const ExplainedUrl& asked,
                          const Explanation& explained) {
  const bool taken = explained.winner >= 0;
  jsonOpen(page, nullptr, '{');
  jsonText(page, "uri", asked.url);
  jsonText(page, "host", asked.host);
  writeMappings(page, explained);
  jsonNumber(page, "mapping_count", explained.mappingCount);
  jsonText(page, "winner",
           taken ? explained.mappings[explained.winner].pattern : nullptr);
  if (taken) writeChoice(page, explained);
  jsonOpen(page, "end", '{');
  writeWords(page, "reason", wordsOf(explained.end));
  jsonClose(page, '}');
  jsonClose(page, '}');
  add(page, "\n");
}
