// A request that no browser sent: what the connector's own code needs to talk to a server
// from a tool.
//
// What belongs to the client's side stands in its fields; what a server sends for the
// client goes to three functions that a command overrides. Sockets are the connector's
// own, with notes on what was seen there: they tell a server from what is none.
//
// Ownership: the record, and all that its arrays point to, lives as long as the object.
// Threads: one at a time. Failure: as the connector's code has it, in lastError.
// Units: milliseconds.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "context/vesk_request.h"

namespace ctl {

struct Limits {
  std::int32_t connect = 5000;
  // Of a conversation as a whole, its connect included; no ping puts it off.
  std::int32_t conversation = 5000;
};

// What was seen on the line since the last call of restart.
struct LineNotes {
  bool connecting = false;  // a connect was tried
  bool connected = false;   // one was made
  double connectMillis = 0;
  std::string firstBytes;     // that came, a few
  std::int64_t received = 0;  // bytes
  bool tooLarge = false;      // the server announced more than anybody should hold
  std::string firstLog;       // the connector's first log line: where it went wrong
};

using Headers = std::vector<std::pair<std::string, std::string>>;

class ToolRequest {
 public:
  explicit ToolRequest(const Limits& limits, bool verbose = false);
  virtual ~ToolRequest();
  ToolRequest(const ToolRequest&) = delete;
  ToolRequest& operator=(const ToolRequest&) = delete;

  [[nodiscard]] vesk_request* record() {
    return &ownRecord;
  }

  // Makes it a request for a page: path and query in one text, as a browser sends it.
  // Names of headers are turned into lower case, which is what servers know.
  void setTarget(const std::string& method, const std::string& target,
                 const Headers& headers);
  // The body that a server may ask for, from its first byte.
  void setBody(std::string bytes);
  // One of the variables that a server may ask for, such as "REMOTE_ADDR".
  void setVariable(const std::string& name, const std::string& value);

  // Makes it as new for another conversation: what the last one has left behind goes,
  // notes included. The request and its body stay, from the first byte.
  void restart();
  [[nodiscard]] const LineNotes& seen() const {
    return notes;
  }

  // What a server's answer brings. They must not throw. `onBody` says whether the bytes
  // could be taken.
  virtual void onStatus(std::int32_t /*status*/, std::string_view /*reason*/) noexcept {}
  virtual void onHeader(std::string_view /*name*/, std::string_view /*value*/) noexcept {}
  virtual bool onBody(std::string_view /*bytes*/) noexcept {
    return true;
  }

 private:
  friend struct ToolOperations;  // of the record; they find the object through it
  [[nodiscard]] const char* findHeader(const char* name) const;

  vesk_request ownRecord;
  bool isVerbose;
  LineNotes notes;
  std::string method = "GET";
  std::string uri;
  Headers variables;
  Headers headers;
  std::vector<const char*> headerNames;  // into `headers`, ended by null
  std::vector<const char*> headerValues;
  std::string body;
  std::size_t bodyRead = 0;
};

}  // namespace ctl
