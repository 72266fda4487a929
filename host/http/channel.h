// The bytes to and from one client, whatever carries them.
//
// Nothing here waits of its own accord but for `Wait::brief` and wait(): a call
// that can't go on gives -1 with EAGAIN, and awaits() tells what it needs.
//
// Ownership: a channel owns its socket and closes it.
// Threads: one at a time; another thread may only shut the socket down.
// Errors: -1 with errno. Units: bytes, milliseconds.
#pragma once

#include <poll.h>
#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "http/patience.h"

namespace host {

// How long a receive that waits briefly may block: its time limit stands in the
// socket, so that the next request of a busy client costs one system call.
constexpr int kBriefWait = 20;

enum class Wait { none, brief };

// What a plug-in may know of a connection with TLS.
struct TlsFacts {
  int keySize;              // bits of the cipher's key; 0: there is no TLS
  std::string cipher;       // by the name that OpenSSL gives it
  std::string certificate;  // of the client, verified, in base64; empty: none
};

class Channel {
 public:
  Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  virtual ~Channel() = default;

  // What has come, at most `size` bytes: the count; 0 at the end of the stream.
  [[nodiscard]] virtual ssize_t receive(char* to, std::size_t size, Wait wait) = 0;

  // Takes bytes to send, in this order: how many; it may be less than all. With
  // `more`, they may wait for those that follow at once.
  [[nodiscard]] virtual ssize_t send(std::span<const iovec> parts, bool more) = 0;

  // Sends a part of a file: the count; 0 when the file ends before it.
  [[nodiscard]] virtual ssize_t sendFile(int file, off_t offset, std::size_t count) = 0;

  // Ends the stream to the client, whose own bytes still come.
  virtual void endSending() = 0;

  // Makes the end of the connection one that the client takes for a failure.
  virtual void abandon() = 0;

  // Waits until what gave EAGAIN may go on: 1; 0 when the time is over.
  [[nodiscard]] virtual int wait(int milliseconds) = 0;

  [[nodiscard]] virtual int socket() const = 0;

  // The loop has made the socket one that never blocks: from here on a thread is with
  // it, whose receive may wait briefly.
  virtual void leaveLoop() = 0;

  // True when the client has sent something that nobody has received.
  [[nodiscard]] virtual bool holdsUnread() const = 0;

  [[nodiscard]] virtual TlsFacts tls() const {
    return {};
  }

  // True when bytes have been taken from the socket and not been received: it may
  // then be quiet though there is something to receive.
  [[nodiscard]] virtual bool holdsBytes() const {
    return false;
  }

  // What EPROTO means.
  [[nodiscard]] virtual const char* failure() const {
    return "";
  }

  // What comes next is the client's.
  void expectInput() {
    awaits_ = POLLIN;
  }

  // POLLIN or POLLOUT: what the last EAGAIN needs.
  [[nodiscard]] short awaits() const {
    return awaits_;
  }

 protected:
  short awaits_ = POLLIN;
};

// A channel without encryption on a connected socket that blocks, and whose
// receive limit is kBriefWait. Takes the socket. Null when
// memory is short; the socket is then closed.
[[nodiscard]] std::unique_ptr<Channel> openPlainChannel(int socket);

// What has been sent and the client's machine hasn't taken yet, in bytes.
[[nodiscard]] std::int64_t unsentBytes(const Channel& channel);

// What a client is allowed to take its time over, and how much it has taken, for one
// response. Units: milliseconds, bytes.
struct SendPatience {
  Patience patience;
  std::int64_t sent = 0;      // so far
  const char* met = nullptr;  // the option that ended it
};

// Sends all of the parts, which it uses up. False when the client has met a limit or
// has gone. Blocks.
[[nodiscard]] bool sendAll(Channel* channel, std::span<iovec> parts, bool more,
                           SendPatience* patience);

// The same for a part of a file; false, too, when the file has shrunk (ENODATA).
[[nodiscard]] bool sendWholeFile(Channel* channel, int file, off_t offset,
                                 std::size_t count, SendPatience* patience);

}  // namespace host
