// The bytes of a response: its head, and the framing of its body.
//
// buildHead decides how the body is framed, and a ResponseWriter puts head and
// blocks together so that the head leaves with the first block, in one write.
//
// Ownership: the writer borrows its sink. Threads: one at a time. No lock.
// Errors: as each function tells; std::bad_alloc when memory is short.
// Units: bytes.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "nsapi.h"

namespace host {

// A time, in seconds since the epoch, as headers show it.
[[nodiscard]] std::string httpTime(std::int64_t seconds);

enum class Framing { none, counted, chunked, untilClose };

struct ResponseHead {
  std::string text;      // status line to empty line
  std::size_t fate;      // where in it the connection's fate begins, the last header
  Framing framing;       // how the body goes out
  std::int64_t length;   // of a counted body
  bool close;            // the connection can't take another request
  std::string rejected;  // names of headers that can't be sent, for the log
};

// What the head depends on besides the plug-in's records.
struct HeadSettings {
  bool http11;            // the client speaks HTTP/1.1
  bool headRequest;       // the method is HEAD
  bool keepAlive;         // client and server would keep the connection
  const char* outcome;    // what the plug-in has said by now; null: nothing
  std::string_view date;  // value of the Date header
  std::string_view server;
};

// `srvhdrs` gives the headers in its order. Those that the host owns (date,
// server, framing of the connection) are left out, and so is every header whose
// name or value could end its line.
[[nodiscard]] ResponseHead buildHead(int status, const char* reason,
                                     const pblock* srvhdrs, const HeadSettings& settings);

// Where the bytes go.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Sends all parts, which it uses up, in one write if the client takes them: false
  // when it can't be reached. With `more`, bytes follow at once. Blocks.
  virtual bool send(std::span<iovec> parts, bool more) = 0;
  // Sends a part of a file: false, too, when the file has shrunk. Blocks.
  virtual bool sendFile(int file, std::int64_t offset, std::int64_t count) = 0;
};

class ResponseWriter {
 public:
  explicit ResponseWriter(ByteSink* sink) : sink_(sink) {}

  // Takes the head; nothing is sent yet.
  void start(ResponseHead head);
  [[nodiscard]] bool started() const {
    return started_;
  }

  [[nodiscard]] bool headSent() const {
    return started_ && !headWaits_;
  }

  // Sends a block, with the head before the first one. Bytes behind a counted
  // body's length are dropped. False when the client can't be reached, now or
  // earlier.
  [[nodiscard]] bool write(const char* bytes, std::size_t size);

  // The same for a part of a file. REQUIRES: the body is counted.
  [[nodiscard]] bool writeFile(int file, std::int64_t offset, std::int64_t count);

  // Sends the head alone if it is still waiting.
  [[nodiscard]] bool sendHead();

  // True when nothing but the end of the connection ends the body.
  [[nodiscard]] bool endsByClose() const {
    return started_ && head_.framing == Framing::untilClose;
  }

  // What has been written of the body, its framing left out.
  [[nodiscard]] std::int64_t bodyBytes() const {
    return bodyBytes_;
  }

  // What is missing of a counted body; below 0 for any other.
  [[nodiscard]] std::int64_t missing() const;

  // Sends what is still missing at the end; without `keep`, a head that still waits says
  // that the connection closes. True when the response is complete and the connection
  // can take another request.
  [[nodiscard]] bool finish(bool keep);

  // Ends the response without its end. False, as finish.
  [[nodiscard]] bool cut();

 private:
  [[nodiscard]] bool sendBlock(const char* bytes, std::size_t size);
  [[nodiscard]] bool send(std::span<iovec> parts, bool more);
  [[nodiscard]] iovec takeHead();
  void announceClose();

  ByteSink* sink_;
  ResponseHead head_{};
  std::int64_t left_ = 0;  // of a counted body
  std::int64_t bodyBytes_ = 0;
  bool started_ = false;
  bool headWaits_ = false;
  bool failed_ = false;
};

}  // namespace host
