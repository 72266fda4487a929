#include "embedded/waiting_room.h"

#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

namespace host {

namespace asio = boost::asio;
using Error = boost::system::error_code;

// A client that has been told to go has this long to hear it, and so many bytes of
// its own to get rid of.
constexpr std::int64_t kPartingTime = 2;
constexpr std::int64_t kPartingBytes = 1 << 20;

// A client that is new has its head with it.
static std::int64_t patience(const Client& client, const Limits& limits) {
  return client.served ? limits.keepAliveTimeout : limits.headTimeout;
}

struct WaitingRoom::Waiter {
  Waiter(asio::io_context* loop, std::unique_ptr<Client> who)
      : client(std::move(who)), socket(*loop, client->channel->socket()), timer(*loop) {}
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;
  // The number is the channel's, which closes it.
  ~Waiter() {
    if (socket.is_open()) (void)socket.release();
  }

  std::unique_ptr<Client> client;  // null once the waiter has been dismissed
  asio::posix::stream_descriptor socket;
  asio::steady_timer timer;
  List* list = nullptr;
  List::iterator place{};
  bool parting = false;
  std::int64_t readAway = 0;
  std::int64_t unsent = 0;  // of its response, when it was last looked at
};

// What is begun ends with the loop, which finds no client any more.
WaitingRoom::~WaitingRoom() {
  for (List* list : {&idle_, &waiters_}) {
    for (const Place& waiter : *list) {
      (void)waiter->socket.release();
      waiter->client.reset();
    }
  }
}

WaitingRoom::Place WaitingRoom::admit(std::unique_ptr<Client> client, List* list) {
  auto waiter = std::make_shared<Waiter>(loop_, std::move(client));
  waiter->list = list;
  waiter->place = list->insert(list->end(), waiter);
  return waiter;
}

// Takes a client out of the room. What was begun for it ends without effect. The loop
// has made its socket one that never blocks; a thread's receive may wait briefly.
std::unique_ptr<Client> WaitingRoom::dismiss(const Place& waiter) {
  std::unique_ptr<Client> client = std::move(waiter->client);
  waiter->timer.cancel();
  (void)waiter->socket.release();
  client->channel->leaveLoop();
  waiter->list->erase(waiter->place);  // last: what names the waiter may be in the list
  return client;
}

void WaitingRoom::drop(const Place& waiter) {
  (void)dismiss(waiter);
}

// Without memory to go on with a client it can only go: the loop must turn on.
void WaitingRoom::handle(const Place& waiter,
                         void (WaitingRoom::*step)(const Place&)) try {
  (this->*step)(waiter);
} catch (const std::exception& error) {
  settings_.log->tellLoss(error.what());
  if (waiter->client) drop(waiter);
}

void WaitingRoom::watch(const Place& waiter) {
  if (waiter->client->channel->holdsBytes()) {
    return asio::post(*loop_, [this, waiter] {
      if (waiter->client) handle(waiter, &WaitingRoom::onReadable);
    });
  }
  const bool writes = waiter->client->channel->awaits() == POLLOUT;
  const auto what = writes ? asio::posix::stream_descriptor::wait_write
                           : asio::posix::stream_descriptor::wait_read;
  waiter->socket.async_wait(what, [this, waiter](const Error& error) {
    if (!error && waiter->client) handle(waiter, &WaitingRoom::onReadable);
  });
}

void WaitingRoom::limit(const Place& waiter, std::int64_t seconds) {
  waiter->timer.expires_after(std::chrono::seconds(seconds));
  waiter->timer.async_wait([this, waiter](const Error& error) {
    if (!error && waiter->client) handle(waiter, &WaitingRoom::onTimeout);
  });
}

// A waiter without a watch or a limit would stay for ever.
void WaitingRoom::begin(const Place& waiter, std::int64_t seconds) try {
  waiter->client->channel->expectInput();
  limit(waiter, seconds);
  watch(waiter);
} catch (...) {
  (void)dismiss(waiter);
  throw;
}

void WaitingRoom::enter(std::unique_ptr<Client> client) {
  const std::int64_t seconds = patience(*client, *settings_.limits);
  const bool begun = !client->input.waiting().empty();
  if (!begun) client->input.release();
  const Place waiter = admit(std::move(client), begun ? &waiters_ : &idle_);
  begin(waiter, begun ? settings_.limits->headTimeout : seconds);
}

void WaitingRoom::part(std::unique_ptr<Client> client) {
  client->channel->endSending();
  const Place waiter = admit(std::move(client), &waiters_);
  waiter->parting = true;
  waiter->unsent = unsentBytes(*waiter->client->channel);
  begin(waiter, kPartingTime);
}

void WaitingRoom::beginHead(const Place& waiter) {
  waiters_.splice(waiters_.end(), idle_, waiter->place);
  waiter->list = &waiters_;
  limit(waiter, settings_.limits->headTimeout);
}

void WaitingRoom::onReadable(const Place& waiter) {
  if (waiter->parting) return readAway(waiter);
  Client* client = waiter->client.get();
  const auto most = static_cast<std::size_t>(settings_.limits->requestHead) + 1;
  const ssize_t count = receiveInput(client, most, Wait::none);
  if (count > 0) return onBytes(waiter);
  if (count < 0 && errno == EAGAIN) return watch(waiter);
  if (count >= 0 || errno != EPROTO) return drop(waiter);
  settings_.log->tellLoss(client->channel->failure());
  part(dismiss(waiter));  // so that the client hears of it
}

void WaitingRoom::onBytes(const Place& waiter) {
  if (nextHead(waiter->client.get(), *settings_.limits) != HeadState::incomplete) {
    return settings_.ready(dismiss(waiter));
  }
  const bool begins = waiter->list == &idle_ && !waiter->client->input.waiting().empty();
  if (begins) beginHead(waiter);
  watch(waiter);
}

void WaitingRoom::readAway(const Place& waiter) {
  char bytes[16384];
  const ssize_t count =
      waiter->client->channel->receive(bytes, sizeof(bytes), Wait::none);
  waiter->readAway += count;
  const bool more = count > 0 && waiter->readAway < kPartingBytes;
  const bool later = count < 0 && errno == EAGAIN;
  more || later ? watch(waiter) : drop(waiter);
}

// For as long as the client takes of its response, it may stay.
void WaitingRoom::awaitParting(const Place& waiter) {
  const std::int64_t unsent = unsentBytes(*waiter->client->channel);
  const bool takes = unsent > 0 && unsent < waiter->unsent;
  waiter->unsent = unsent;
  takes ? limit(waiter, kPartingTime) : drop(waiter);
}

// A client that has begun a head is told why it goes; one that was quiet isn't
// waiting for anything.
void WaitingRoom::onTimeout(const Place& waiter) {
  if (waiter->parting) return awaitParting(waiter);
  const bool begun = waiter->list == &waiters_;
  if (begun || !waiter->client->served) {
    settings_.log->tell("HeadTimeout", waiter->client->address);
  }
  if (begun) {
    char text[] =
        "HTTP/1.1 408 Request Timeout\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    const iovec part{text, sizeof(text) - 1};
    (void)waiter->client->channel->send({&part, 1}, false);
  }
  drop(waiter);
}

bool WaitingRoom::closeIdlest() {
  if (idle_.empty()) return false;
  drop(idle_.front());
  return true;
}

// A request that has come by now is one that runs.
void WaitingRoom::closeOrServe(const Place& waiter) {
  Client* client = waiter->client.get();
  const auto most = static_cast<std::size_t>(settings_.limits->requestHead) + 1;
  const bool came = receiveInput(client, most, Wait::none) > 0;
  const bool whole = came && nextHead(client, *settings_.limits) != HeadState::incomplete;
  whole ? settings_.ready(dismiss(waiter)) : drop(waiter);
}

void WaitingRoom::closeWaiting() {
  while (!idle_.empty()) closeOrServe(idle_.front());
  for (auto next = waiters_.begin(); next != waiters_.end();) {
    const Place waiter = *next++;
    if (!waiter->parting) closeOrServe(waiter);
  }
}

}  // namespace host
