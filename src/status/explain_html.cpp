#include "proxy/proxy_settings.h"
#include "status/explain_page.h"
#include "status/explain_words.h"
#include "status/html_page.h"

// Mappings that are shown; of a longer walk, its end.
constexpr std::int32_t kShownMappings = 200;

static void addField(TextBuffer* page, const char* name, const char* label,
                     const char* value) {
  put(page, "<p><label>", label, " <input type=\"text\" name=\"", name, "\" value=\"");
  addHtml(page, value);
  put(page, "\"></label></p>\n");
}

static void beginExplainPage(TextBuffer* page, const ExplainedUrl& asked) {
  beginPage(page, "Vesk: which mapping takes a URL", 0);
  put(page, "<h1>Which mapping takes a URL?</h1><p><a href=\"");
  addPath(page, asked.path);
  put(page, "\">back to the status page</a></p>\n<form>\n");
  addField(page, "url", "URL", asked.url);
  addField(page, "host", "Host, if the URL has none", asked.host);
  addField(page, "cookie", "Cookie", asked.cookie);
  addField(page, "method", "Method", asked.method);
  put(page, "<p><button>explain</button></p></form>\n");
}

void writeExplainForm(TextBuffer* page, const ExplainedUrl& asked, const char* words) {
  beginExplainPage(page, asked);
  put(page, "<p class=\"bad\">", words, "</p>\n");
  endPage(page);
}

static void addMapping(TextBuffer* page, const ExplainedMapping& mapping) {
  put(page, "<tr>");
  cell(page, "Pattern");
  put(page, "<code>");
  addHtml(page, mapping.pattern);
  put(page, "</code></td>");
  cell(page, "Result", mapping.match == PatternMatch::matched ? "good" : "soft");
  put(page, wordsOf(mapping.match).sentence, "</td></tr>\n");
}

static void addVerdict(TextBuffer* page, const Explanation& explained) {
  if (explained.winner < 0)
    return put(page, "<h2>No mapping takes it: the web server serves it itself</h2>\n");
  put(page, "<h2><code>");
  addHtml(page, explained.mappings[explained.winner].pattern);
  put(page, "</code> takes the request</h2>\n");
}

static void addMappings(TextBuffer* page, const Explanation& explained) {
  put(page, "<h2>Mappings, in the order in which they are tried</h2>\n");
  const std::int32_t first =
      explained.lookedAt > kShownMappings ? explained.lookedAt - kShownMappings : 0;
  put(page, "<p class=\"soft\">", explained.lookedAt, " of ", explained.mappingCount,
      " looked at");
  if (first > 0) put(page, "; the first ", first, " are in the JSON form");
  put(page, "</p>\n");
  beginTable(page, {"Pattern", "Result"});
  for (std::int32_t i = first; i < explained.lookedAt; ++i)
    addMapping(page, explained.mappings[i]);
  endTable(page);
}

static void addOwner(TextBuffer* page, const Explanation& explained) {
  const ExplainedServer* end = explained.servers + explained.serverCount;
  for (const ExplainedServer* server = explained.servers; server != end; ++server) {
    if (!server->ownsSession) continue;
    put(page, ", owned by <code>");
    addHtml(page, server->name);
    put(page, "</code>");
    return;
  }
  put(page, ", owned by no server of the mapping");
}

static void addSession(TextBuffer* page, const Explanation& explained) {
  put(page, "<h2>Session</h2><p>");
  if (!explained.hasSession) return put(page, "none</p>\n");
  put(page, "<code>");
  addHtml(page, explained.session);
  put(page, "</code>");
  addOwner(page, explained);
  if (!explained.sticky)
    put(page, "; it doesn't count: sessions of this mapping don't stay");
  if (explained.choice.sessionBroken)
    put(page,
        "; <span class=\"bad\">neither owner nor buddies can serve: it breaks</span>");
  put(page, "</p>\n");
}

static void addState(TextBuffer* page, const ExplainedServer& server) {
  cell(page, "State");
  if (!server.inService)
    put(page, "<span class=\"state bad\">out of service</span></td>");
  else if (!server.active)
    put(page, "<span class=\"state warn\">left this mapping</span></td>");
  else if (server.drained)
    put(page, "<span class=\"state warn\">draining</span></td>");
  else
    put(page, "<span class=\"state good\">in service</span></td>");
}

static void addServer(TextBuffer* page, const Explanation& explained,
                      const ExplainedServer& server) {
  constexpr std::uint64_t kPercent = 100;
  put(page, "<tr>");
  cell(page, "Server");
  put(page, "<code>");
  addHtml(page, server.name);
  put(page, "</code></td>");
  addState(page, server);
  cell(page, "Replication id");
  addHtml(page, server.replicationId);
  put(page, "</td>");
  cell(page, "Weight", "n");
  put(page, server.weight);
  // Weights are bounded, so that this fits for a full list.
  if (explained.totalWeight > kPercent)
    put(page, " (",
        static_cast<std::int64_t>(server.share / (explained.totalWeight / kPercent)),
        "%)");
  put(page, "</td></tr>\n");
}

static void addServers(TextBuffer* page, const Explanation& explained) {
  put(page, "<h2>Its servers, balanced by ", algorithmName(explained.algorithm),
      explained.sticky ? ", sessions stay" : "", "</h2>\n");
  beginTable(page, {"Server", "State", "Replication id", "#Weight"});
  for (std::int32_t i = 0; i < explained.serverCount; ++i)
    addServer(page, explained, explained.servers[i]);
  endTable(page);
}

static void addAttempts(TextBuffer* page, const Explanation& explained) {
  put(page, "<h2>Who serves, and who is tried next if it refuses</h2><ol>\n");
  for (std::int32_t i = 0; i < explained.attemptCount; ++i) {
    const ExplainedAttempt& attempt = explained.attempts[i];
    put(page, "<li><code>");
    addHtml(page, explained.servers[attempt.server].name);
    put(page, "</code>: ", wordsOf(attempt.reason).sentence, "</li>\n");
  }
  if (explained.attemptCount == 0)
    put(page, "<li>", wordsOf(explained.choice.reason).sentence, "</li>\n");
  put(page, "</ol><p>", wordsOf(explained.end).sentence, "</p>\n");
  if (!explained.repeatable)
    put(page,
        "<p>A server that may have read the request is the last: its method isn't "
        "sent twice.</p>\n");
}

void writeExplanationHtml(TextBuffer* page, const ExplainedUrl& asked,
                          const Explanation& explained) {
  beginExplainPage(page, asked);
  addVerdict(page, explained);
  if (explained.winner >= 0) {
    addAttempts(page, explained);
    addSession(page, explained);
    addServers(page, explained);
  }
  addMappings(page, explained);
  endPage(page);
}
