// One TCP connection from a web server, with buffers on both ways.
//
// What is written gathers in `out` and leaves with flush, so that a reply of
// many commands is one system call.
//
// Ownership: the socket belongs to the ConnectionTable, which closes it.
// Threads: one thread reads and writes; others may shut the socket down.
// Errors: ConnectionLost when the peer closes or the socket fails.
// Units: bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace backend {

class Connection {
 public:
  Connection(int fd, std::string peer, std::string local);

  // Waits for the next byte. False when the peer has closed before it, or the
  // socket has failed: between two conversations that is no error.
  [[nodiscard]] bool waitForByte();

  // Each blocks until all bytes are there.
  [[nodiscard]] std::int32_t readWord();
  void readExactly(char* into, std::size_t size);

  // Reads one string. Throws ProtocolError when its length is negative or above
  // `limit`; memory is taken only for bytes that have arrived, and 64 KiB.
  [[nodiscard]] std::string readText(std::int32_t limit);

  // Reads `size` bytes, on the same terms.
  [[nodiscard]] std::string readBlock(std::size_t size);

  // Sends what has gathered. Blocks until the kernel has taken all of it.
  void flush();

  // Makes the close that follows a reset instead of an orderly end.
  void resetOnClose() const;

  std::string out;  // commands that wait for flush

  [[nodiscard]] const std::string& peer() const;

  // The address on which this connection came in, as ip:port.
  [[nodiscard]] const std::string& local() const;

 private:
  [[nodiscard]] bool fill();

  int fd_;
  std::string peer_;
  std::string local_;
  std::vector<char> in_;
  std::size_t begin_ = 0;  // unread bytes of in_: from begin_ to end_
  std::size_t end_ = 0;
};

}  // namespace backend
