// The body of one request: where it ends, and what can be read of it.
//
// Ownership: the exchange's. Threads: the one that runs the request. No lock.
// Errors: as each function tells. Units: bytes.
#pragma once

#include <cstdint>

#include "civetweb.h"

namespace host {

class RequestBody {
 public:
  // Reads the headers that frame the body: 0, or the status of the answer when
  // two readers could disagree on where it ends. `info` of the connection.
  [[nodiscard]] int open(const mg_request_info* info);

  // Reads what has come, at most `size` bytes, and waits when nothing has: the
  // count; 0 at the end; -1 when the body breaks off.
  [[nodiscard]] int read(mg_connection* connection, unsigned char* buffer, int size);

  // Reads and drops the rest, if it is small: true when nothing is left.
  [[nodiscard]] bool drain(mg_connection* connection);

  // True once: the client waits for a word before it sends the body.
  [[nodiscard]] bool takeContinue();

 private:
  [[nodiscard]] int readCounted(mg_connection* connection, unsigned char* buffer,
                                int size);
  [[nodiscard]] int readChunk(mg_connection* connection, unsigned char* buffer, int size);
  [[nodiscard]] bool openChunk();
  [[nodiscard]] int endChunks(mg_connection* connection);

  std::int64_t left_ = 0;       // of the body or of the open chunk
  std::int64_t chunkLine_ = 0;  // size of the open chunk's line, while unread
  bool chunked_ = false;
  bool ended_ = true;
  bool broken_ = false;
  bool continueWaits_ = false;
};

}  // namespace host
