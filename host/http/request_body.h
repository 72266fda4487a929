// The body of one request: where it ends, and what can be read of it.
//
// Ownership: the exchange's; the client outlives it.
// Threads: the one that runs the request. No lock.
// Errors: as each function tells; whyBroken tells the reason.
// Units: bytes.
#pragma once

#include <cstdint>
#include <string_view>

#include "http/client.h"
#include "http/limits.h"
#include "http/patience.h"
#include "http/request_head.h"

namespace host {

class RequestBody {
 public:
  RequestBody(Client* client, const Limits& limits)
      : client_(client),
        limits_(limits),
        patience_(patienceOf(limits.bodyTimeout, limits.minBodyRate)) {}

  // Takes the framing that a good head tells. REQUIRES: the head has been taken
  // out of the client's input.
  void open(const RequestHead& head);

  // Reads what one read gives, at most `size` bytes, and waits when nothing has
  // come: the count; 0 at the end; -1 when the body breaks off.
  [[nodiscard]] int read(char* buffer, int size);

  // Reads and drops the rest, if it is small: true when nothing is left.
  [[nodiscard]] bool drain();

  // True once: the client waits for a word before it sends the body.
  [[nodiscard]] bool takeContinue();

  // True when bytes of it may still come.
  [[nodiscard]] bool unread() const {
    return !ended_;
  }

  // The option that a broken body has met, or null: the client broke it.
  [[nodiscard]] const char* limitMet() const {
    return limitMet_;
  }

  // True for a body that is longer than the server takes.
  [[nodiscard]] bool tooLong() const;

 private:
  [[nodiscard]] int receive(char* to, std::size_t size);
  [[nodiscard]] bool receiveMore();
  [[nodiscard]] int readBytes(char* buffer, std::size_t size);
  [[nodiscard]] int readChunk(char* buffer, std::size_t size);
  [[nodiscard]] std::string_view readLine(std::int64_t most);
  [[nodiscard]] bool endLine();
  [[nodiscard]] bool openChunk();
  [[nodiscard]] bool readTrailers();
  [[nodiscard]] int refuse(const char* limit);

  Client* client_;
  const Limits& limits_;
  Patience patience_;
  const char* limitMet_ = nullptr;
  std::int64_t left_ = 0;       // of a counted body or of the open chunk
  std::int64_t taken_ = 0;      // of the body, so far
  std::int64_t received_ = 0;   // from the client, framing and all
  std::int64_t lineBytes_ = 0;  // of chunks' lines
  bool chunked_ = false;
  bool inChunk_ = false;  // its line has been read, the end behind its bytes hasn't
  bool ended_ = true;
  bool broken_ = false;
  bool continueWaits_ = false;
};

}  // namespace host
