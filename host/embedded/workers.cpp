#include "embedded/workers.h"

#include <sys/socket.h>

#include <new>

namespace host {

// One thread, and the socket of the client that it is with, so that another can
// cut it off.
struct Workers::Place {
  std::thread thread;
  std::mutex lock;
  int socket = -1;  // guarded by lock
};

Workers::Workers(Serve serve, HandBack handBack)
    : serve_(std::move(serve)), handBack_(std::move(handBack)) {}

Workers::~Workers() {
  finish();
  for (const auto& place : places_) {
    if (place->thread.joinable()) place->thread.join();
  }
}

void Workers::start(std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    places_.push_back(std::make_unique<Place>());
    Place* place = places_.back().get();
    ++running_;
    place->thread = std::thread([this, place] { run(place); });
  }
}

void Workers::add(std::unique_ptr<Client> client) {
  {
    std::lock_guard guard(lock_);
    queue_.push_back(std::move(client));
    ++waiting_;
  }
  work_.notify_one();
}

// Null at the end of all work.
std::unique_ptr<Client> Workers::take() {
  std::unique_lock guard(lock_);
  ++idle_;
  work_.wait(guard, [this] { return finishing_ || !queue_.empty(); });
  --idle_;
  if (queue_.empty()) return nullptr;
  std::unique_ptr<Client> client = std::move(queue_.front());
  queue_.pop_front();
  --waiting_;
  return client;
}

static void name(std::mutex* lock, int* place, int socket) {
  std::lock_guard guard(*lock);
  *place = socket;
}

// The place names no socket any more when that may close.
void Workers::serveOne(Place* place, std::unique_ptr<Client> client) try {
  name(&place->lock, &place->socket, client->channel->socket());
  const Ending ending = serve_(client.get());
  name(&place->lock, &place->socket, -1);
  if (ending == Ending::close) return;
  if (ending == Ending::again) return add(std::move(client));
  handBack_(std::move(client), ending);
} catch (const std::bad_alloc&) {
  // Without memory for its place in a queue a client can only go.
}

void Workers::run(Place* place) {
  while (std::unique_ptr<Client> client = take()) serveOne(place, std::move(client));
  --running_;
}

void Workers::finish() {
  {
    std::lock_guard guard(lock_);
    finishing_ = true;
  }
  work_.notify_all();
}

int Workers::cut() {
  int count = 0;
  for (const auto& place : places_) {
    std::lock_guard guard(place->lock);
    if (place->socket < 0) continue;
    (void)shutdown(place->socket, SHUT_RDWR);
    ++count;
  }
  return count;
}

}  // namespace host
