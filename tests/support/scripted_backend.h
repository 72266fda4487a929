// A server that plays a script through the socket operations of a request.
//
// A script is a list of steps in the order in which they must happen, over all
// connections and servers. Whatever differs fails the test with the step's number,
// what was expected and what came; so does a byte too many. Once the last step is
// done, sockets may still be closed, and nothing else may happen.
//
//   ScriptedBackend backend({expectPing(), expectFrame(PROXY_SERVICE_40),
//                            put(PROXY_PUT_STATUS, word(200), text("OK")),
//                            put(PROXY_FINISH)});
//   backend.attach(t.req);
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "support/recorded_request.h"

struct ScriptStep {
  enum class Kind {
    connect,
    noConnect,
    bytes,
    frame,
    put,
    hangUp,
    noSend,
    noRecv,
    close
  };
  Kind kind;
  std::int32_t number;  // a command, an error or a socket, as kind asks
  std::string bytes;
};

// Elements of the protocol.
std::string word(std::int32_t number);
std::string text(std::string_view bytes);  // a string or block

// Sockets are numbered from here in the order of their connects. In front of
// expectPing the connect may be left out.
constexpr std::int32_t kFirstSocket = 1001;
ScriptStep expectConnect();
ScriptStep failConnect(std::int32_t error);

// Exactly these bytes are sent, in any number of pieces.
ScriptStep expectBytes(std::string bytes);
ScriptStep expectPing();
// One whole opening frame of that command, whatever it holds; see `lastFrame`.
ScriptStep expectFrame(std::int32_t command);
ScriptStep expectGetProps(std::string_view set);

ScriptStep putBytes(std::string bytes);
template <typename... Operands>
ScriptStep put(std::int32_t command, const Operands&... operands) {
  return putBytes((word(command) + ... + operands));
}
ScriptStep putProps(std::string_view properties);  // answers expectGetProps

// The server closes its end: the next read finds the end. What is sent before
// that read is taken and lost, as TCP does.
ScriptStep hangUp();
ScriptStep failSend(std::int32_t error);
ScriptStep failRecv(std::int32_t error);
// The connector closes a socket; that one, unless it is 0.
ScriptStep expectClose(std::int32_t sock = 0);

class ScriptedBackend {
 public:
  explicit ScriptedBackend(std::vector<ScriptStep> script);
  ScriptedBackend(const ScriptedBackend&) = delete;
  ScriptedBackend& operator=(const ScriptedBackend&) = delete;

  // Puts this server behind the socket operations of a request, and itself into
  // `sn` of it.
  void attach(vesk_request* req);

  // Every step has been played. Fails the test with the first one that has not.
  [[nodiscard]] bool finished() const;
  [[nodiscard]] int openSockets() const;

  // The last whole frame of expectFrame.
  [[nodiscard]] const std::string& lastFrame() const {
    return lastFrame_;
  }

  // What one read or send moves at most.
  std::int32_t piece = INT32_MAX;

  // Calls of the operations so far.
  int connects = 0;
  int sends = 0;
  int recvs = 0;

 private:
  struct Socket {
    bool open;
    bool hungUp;
  };

  static std::int32_t onConnect(vesk_request* req, const sockaddr_in* address);
  static void onClose(vesk_request* req, std::int32_t sock);
  static std::int32_t onSend(vesk_request* req, std::int32_t sock, const void* buffer,
                             std::int32_t length);
  static std::int32_t onRecv(vesk_request* req, std::int32_t sock, void* buffer,
                             std::int32_t length, veskProxy* proxy);

  std::int32_t acceptSend(vesk_request* req, std::string_view bytes);
  std::int32_t giveBytes(char* buffer, std::int32_t length);
  void matchFrame(std::string_view all);
  [[nodiscard]] bool failsAs(ScriptStep::Kind kind, vesk_request* req);
  // What the connector did differs from the script.
  void differ(const std::string& what);
  [[nodiscard]] bool at(ScriptStep::Kind kind) const;
  [[nodiscard]] bool isUsable(std::int32_t sock) const;
  [[nodiscard]] std::string describeStep() const;

  std::vector<ScriptStep> script_;
  std::size_t step_ = 0;
  std::size_t given_ = 0;  // bytes of the current put that were read
  std::string received_;   // bytes of the current expectation that came
  std::string lastFrame_;
  bool gone_ = false;  // it differed: the server refuses, resets, sends nothing
  std::map<std::int32_t, Socket> sockets_;
};
