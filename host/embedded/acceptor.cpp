#include "embedded/acceptor.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <cstring>

namespace host {

namespace asio = boost::asio;
using Error = boost::system::error_code;

// Between two attempts while there is room for no client.
constexpr std::chrono::milliseconds kPause{50};

Acceptor::Acceptor(asio::io_context* loop, const Listener& listener, Settings settings)
    : socket_(*loop, listener.socket),
      timer_(*loop),
      local_(listener.local),
      passed_(listener.passed),
      settings_(std::move(settings)) {
  socket_.non_blocking(true);
}

void Acceptor::stop() {
  Error ignored;
  timer_.cancel();
  (void)socket_.close(ignored);
}

void Acceptor::watch() {
  socket_.async_wait(asio::posix::stream_descriptor::wait_read,
                     [this](const Error& error) {
                       if (!error) acceptAll();
                     });
}

void Acceptor::pause() {
  timer_.expires_after(kPause);
  timer_.async_wait([this](const Error& error) {
    if (!error) acceptAll();
  });
}

bool Acceptor::someoneWaits() {
  pollfd file{socket_.native_handle(), POLLIN, 0};
  return poll(&file, 1, 0) > 0;
}

// True to go on with the next.
bool Acceptor::acceptOne() {
  Endpoint peer;
  auto size = static_cast<socklen_t>(peer.capacity());
  const int client = accept4(socket_.native_handle(), peer.data(), &size, SOCK_CLOEXEC);
  if (client >= 0) {
    peer.resize(size);
    if (passed_) prepareClient(client);
    settings_.take(client, peer, local_);
    return true;
  }
  if (errno == EINTR || errno == ECONNABORTED) return true;
  if (errno == EAGAIN) {
    watch();
  } else {
    settings_.failed(std::strerror(errno));
    pause();
  }
  return false;
}

// Nobody has to go for a client that hasn't come.
void Acceptor::acceptAll() {
  if (!socket_.is_open()) return;
  do {
    const bool full = settings_.full();
    if (full && !someoneWaits()) return watch();
    if (full && !settings_.makeRoom()) return pause();
  } while (acceptOne());
}

}  // namespace host
