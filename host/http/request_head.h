// The head of a request, read strictly.
//
// Two readers that disagree on where a request ends let a client speak in
// another's name. What could be read in two ways is therefore refused: only the
// form that RFC 9112 asks a client to send is taken.
//
// Ownership: the texts are parts of the bytes that were read; they last as long
// as those stay where they are. Threads: one at a time. Errors: a status.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "http/limits.h"

namespace host {

struct HeaderField {
  std::string_view name;   // as the client wrote it
  std::string_view value;  // without blanks at its ends
};

struct RequestHead {
  std::string_view method{};
  std::string_view target{};     // as the client wrote it
  std::string_view path{};       // of the target, with its query; "*": the server as such
  std::string_view authority{};  // of an absolute target; empty: it names no server
  bool http11 = false;
  bool headRequest = false;           // the method is HEAD
  bool keepAlive = false;             // the client would keep the connection
  bool chunked = false;               // the body comes in chunks
  bool expectsContinue = false;       // the client waits for a word before its body
  std::int64_t length = 0;            // of a counted body; 0: there is none
  std::vector<HeaderField> fields{};  // in the client's order
};

// Reads a complete head, its empty line included: 0, or the status of the answer
// that it gets. After 400, 431 or 505 nobody knows where the request ends; after
// any other status `head` is as good as after 0.
[[nodiscard]] int readHead(std::string_view bytes, const Limits& limits,
                           RequestHead* head);

// The methods that this server takes, as the header Allow lists them.
constexpr char kAllowedMethods[] = "GET, HEAD, POST, PUT, DELETE, PATCH, OPTIONS";

}  // namespace host
