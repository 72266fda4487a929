// One server that a tool talks to, by the connector's own conversations.
//
// It is a proxy that stands in no table: it connects when it is first asked, and keeps
// its connection for the next question.
//
// Ownership: the request must outlive the link. Threads: those of the request.
// Failure: in words, made for whoever reads them on a terminal. Units: milliseconds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ctl/tool_request.h"

struct veskProxy;

namespace ctl {

using Properties = std::vector<std::pair<std::string, std::string>>;

// The first pair's value of that key, or "".
[[nodiscard]] std::string valueOf(const Properties& pairs, const std::string& key);

// What a server answered to a question for one of its sets.
struct SetAnswer {
  std::string failure;  // empty: it answered; else why not, harmless text
  Properties pairs;
  std::optional<std::int32_t> sequence;  // of the cluster's list, where it came along
  double millis = 0;                     // for the answer, the connect not counted
};

// A dotted address and port of "HOST:PORT", where HOST is an address or a name.
struct ServerAddress {
  std::string dotted;   // "10.0.0.1:7001"; empty on failure
  std::string failure;  // harmless text
};
[[nodiscard]] ServerAddress resolveServer(const std::string& text);

class ServerLink {
 public:
  // `dotted` as resolveServer gives it. Nothing is sent yet.
  ServerLink(ToolRequest& request, const std::string& dotted);
  ~ServerLink();
  ServerLink(const ServerLink&) = delete;
  ServerLink& operator=(const ServerLink&) = delete;

  // Asks for "server-props", "servlet-mappings" or "clustered-servers". Blocks for the
  // limits of the request.
  [[nodiscard]] SetAnswer ask(const std::string& set);

  // Null when the record couldn't be made.
  [[nodiscard]] veskProxy* server() {
    return proxy;
  }

  // Why what was just tried with this server failed, by lastError and the notes of the
  // request: "refused", "no route", `answered "HTTP": not a Vesk port`, ... May connect
  // once more to learn who listens there.
  [[nodiscard]] std::string whyFailed();

 private:
  ToolRequest& request;
  veskProxy* proxy;
};

}  // namespace ctl
