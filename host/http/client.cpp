#include "http/client.h"

#include <cerrno>

namespace host {

ssize_t receiveInput(Client* client, std::size_t most, Wait wait) {
  const std::span<char> room = client->input.makeRoom(most);
  if (room.empty()) {
    errno = ENOBUFS;
    return -1;
  }
  ssize_t count;
  do {
    count = client->channel->receive(room.data(), room.size(), wait);
  } while (count < 0 && errno == EINTR);
  if (count > 0) client->input.add(static_cast<std::size_t>(count));
  return count;
}

HeadState nextHead(Client* client, const Limits& limits) {
  // Room for the longest method and the version beside the target.
  constexpr std::int64_t kLineFrame = 64;
  if (client->scan.size == 0) client->input.take(emptyLines(client->input.waiting()));
  if (client->scan.size == 0 && client->input.waiting() == "\r")
    return HeadState::incomplete;
  const HeadSizes sizes{static_cast<std::size_t>(limits.requestHead),
                        static_cast<std::size_t>(limits.requestUri + kLineFrame)};
  return scanHead(&client->scan, client->input.waiting(), sizes);
}

}  // namespace host
