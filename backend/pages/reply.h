// What the pages share: status and headers, whole replies, facts on the server.
//
// Ownership: texts are copied to the connection's buffer before a call returns.
// Threads: that of the connection; the send functions may block.
// Errors: as Exchange has them. Units: bytes.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "backend/pages/page.h"

namespace backend {

struct ReplyHead {
  int status;
  std::string_view type;               // Content-Type; empty: none is sent
  std::optional<std::int64_t> length;  // Content-Length, when it is known
};

// The reason text of a status code; "Status" for one that has none.
[[nodiscard]] std::string_view reasonOf(int status);

// False for the codes whose replies never have a body.
[[nodiscard]] bool hasBody(int status);

// Puts status and headers; nothing leaves yet.
void putHead(const PageCall& call, const ReplyHead& head);

// Puts a block of body, but not in reply to HEAD.
void putBlock(const PageCall& call, std::string_view block);

// A whole reply, to its end.
void sendReply(const PageCall& call, int status, std::string_view type,
               std::string_view body);
void sendJson(const PageCall& call, const nlohmann::ordered_json& value);
void sendHtml(const PageCall& call, int status, std::string_view title,
              std::string_view content);

// A page for people: the status and one sentence, which is escaped here.
void sendMessage(const PageCall& call, int status, std::string_view sentence);

constexpr std::int64_t kMaxPause = 600000;  // milliseconds

// Waits; when the server goes down meanwhile, the conversation breaks off.
void pauseFor(const PageCall& call, std::int64_t milliseconds);

// Address, replication id and process id.
[[nodiscard]] nlohmann::ordered_json serverFacts(const PageCall& call);

// True when the query's `only` names another server than this one: the page
// then leaves out what it is there for. Without `only` it is false.
[[nodiscard]] bool isMeantForAnother(const PageCall& call);

}  // namespace backend
