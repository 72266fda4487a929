// The bytes that come from a client, between its socket and CivetWeb.
//
// CivetWeb reads as much as it is asked for and waits until all of it is there,
// and behind a request's head it takes whatever else has come. A plug-in wants
// what one read gives, and must be able to answer the first half of a body
// before the second half is sent. So `recv` and `poll` are defined by this
// program: for the one socket that a worker thread serves, they hand CivetWeb
// the bytes of a buffer that the host can look into; a head ends where it ends.
// Every other call goes on to the system unchanged.
//
// Ownership: each worker thread has one ClientInput, for one connection after
// the other. Threads: the worker thread alone, but for refuseClients,
// which takes the lock of the list of idle clients.
// Errors: as recv. Units: bytes, milliseconds.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace host {

// How long one wait for a client may take.
constexpr int kClientTimeout = 120000;

class ClientInput {
 public:
  // The input of the calling thread.
  [[nodiscard]] static ClientInput& ofThread();

  ClientInput() = default;
  ClientInput(const ClientInput&) = delete;
  ClientInput& operator=(const ClientInput&) = delete;
  ~ClientInput();

  // A new connection: the next socket that this thread reads is the client's.
  // Allocates the buffer once; false when memory is short.
  [[nodiscard]] bool open();

  // The connection is about to be closed.
  void close();

  // The body has been read: CivetWeb is to get the next head and no more.
  void expectHead();

  // Bytes that have come and that CivetWeb hasn't read.
  [[nodiscard]] std::string_view waiting() const;

  // Waits for further bytes: their count; 0 at the end of the stream; -1 on a
  // failure, after kClientTimeout, or when the buffer is full.
  [[nodiscard]] int fill();

  // Takes bytes out of the middle, so that CivetWeb never sees them.
  void erase(std::size_t offset, std::size_t count);

  // What `recv` and `poll` do for the client's socket.
  [[nodiscard]] bool serves(int socket);
  [[nodiscard]] long receive(void* to, std::size_t size);
  [[nodiscard]] bool refuses() const;

  // The calling thread is the one that waits for new clients.
  void becomeListener();

  // From now on no client is new: the thread that waits for them is told of
  // none, and a connection between two requests is at its end.
  static void refuseClients();

 private:
  void normalizeTarget();
  [[nodiscard]] char headByte(char c);
  [[nodiscard]] std::size_t headPart(std::size_t size);
  [[nodiscard]] long receiveSome();
  void setIdle(bool idle);

  std::unique_ptr<char[]> buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  int socket_ = -1;
  int lineEnds_ = 0;  // in a row, at the end of what CivetWeb has of the head
  bool listener_ = false;
  int blanks_ = 0;  // in the request line
  bool opening_ = false;
  bool inHead_ = false;
  bool headBegun_ = false;  // CivetWeb has something of it
  bool inRequestLine_ = false;
  bool idle_ = false;  // stands in the list of idle clients
  ClientInput* previousIdle_ = nullptr;
  ClientInput* nextIdle_ = nullptr;
};

}  // namespace host
