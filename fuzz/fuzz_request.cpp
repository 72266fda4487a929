// What a client sends: the same bytes in one piece, byte by byte, and cut as the first
// byte of the input says, must be the requests that a strict reader sees in them.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <utility>

#include "http/client.h"
#include "http/request_body.h"
#include "http/request_head.h"
#include "layer/status.h"
#include "request_model.h"

// Small enough to be met by what a fuzzer thinks of.
static const host::Limits kLimits{
    .requestHead = 512, .requestFields = 8, .requestUri = 512, .trailers = 64};

namespace {

// Pieces of one size, or of sizes that a seed gives, with pauses between them.
class Pieces final : public host::Channel {
 public:
  Pieces(std::string_view bytes, std::size_t size, unsigned seed)
      : bytes_(bytes), size_(size), seed_(seed) {}

  ssize_t receive(char* to, std::size_t size, host::Wait) override {
    paused_ = seed_ != 0 && !paused_;
    if (paused_) {
      errno = EAGAIN;
      return -1;
    }
    const std::size_t count = std::min({size, next(), bytes_.size() - given});
    std::memcpy(to, bytes_.data() + given, count);
    given += count;
    return static_cast<ssize_t>(count);
  }
  ssize_t send(std::span<const iovec>, bool) override {
    return -1;
  }
  ssize_t sendFile(int, off_t, std::size_t) override {
    return -1;
  }
  void endSending() override {}
  void abandon() override {}
  int wait(int) override {
    return 1;
  }
  int socket() const override {
    return -1;
  }
  void leaveLoop() override {}
  bool holdsUnread() const override {
    return false;
  }

  std::size_t given = 0;

 private:
  std::size_t next() {
    seed_ = seed_ * 1103515245U + (seed_ != 0 ? 12345U : 0U);
    return seed_ != 0 ? 1 + (seed_ >> 16U) % 40 : size_;
  }

  std::string_view bytes_;
  std::size_t size_;
  unsigned seed_;
  bool paused_ = false;
};

}  // namespace

static std::string lower(std::string_view text) {
  std::string result(text);
  for (char& c : result) c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
  return result;
}

static std::string headText(const host::RequestHead& head) {
  std::string told = std::string(head.method) + " " + std::string(head.target) + "\n";
  for (const host::HeaderField& field : head.fields) {
    told += lower(field.name) + ":" + std::string(field.value) + "\n";
  }
  return told;
}

// Waits for a head: false at the end of what comes.
static bool awaitHead(host::Client* client) {
  while (host::nextHead(client, kLimits) == host::HeadState::incomplete) {
    const ssize_t count = receiveInput(
        client, static_cast<std::size_t>(kLimits.requestHead) + 1, host::Wait::none);
    if (count == 0 || (count < 0 && errno != EAGAIN)) return false;
  }
  return true;
}

static bool isFramed(int status) {
  return status != host::kBadRequest && status != host::kHeadTooLarge &&
         status != host::kUriTooLong && status != host::kVersionNotSupported;
}

// Takes a request whose head is there: false when nobody knows where it ends.
static bool takeRequest(host::Client* client, std::string* told) {
  const host::HeadScan scan = std::exchange(client->scan, {});
  host::RequestHead head;
  *told = "refused";
  if (scan.state != host::HeadState::complete) return false;
  const std::string_view bytes = client->input.waiting().substr(0, scan.size);
  if (!isFramed(readHead(bytes, kLimits, &head))) return false;
  *told = headText(head);
  client->input.take(scan.size);
  host::RequestBody body(client, kLimits);
  body.open(head);
  char buffer[32];
  int count = 0;
  while ((count = body.read(buffer, sizeof(buffer))) > 0) {
    told->append(buffer, static_cast<std::size_t>(count));
  }
  return count == 0;
}

static std::vector<SeenRequest> serve(std::string_view bytes, std::size_t size,
                                      unsigned seed) {
  std::atomic<int> clients{0};
  host::Client client(&clients);
  auto channel = std::make_unique<Pieces>(bytes, size, seed);
  const Pieces* pieces = channel.get();
  client.channel = std::move(channel);
  std::vector<SeenRequest> seen;
  for (bool whole = true; whole && awaitHead(&client);) {
    std::string told;
    whole = takeRequest(&client, &told);
    seen.push_back({told, whole ? pieces->given - client.input.waiting().size() : 0});
  }
  return seen;
}

static void show(const char* who, const std::vector<SeenRequest>& seen) {
  for (const SeenRequest& one : seen) {
    std::cerr << who << " until " << one.end << ": " << one.told << "\n";
  }
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  std::string bytes;
  for (std::size_t i = 1; i < size; ++i) bytes.push_back(static_cast<char>(data[i]));
  const std::vector<SeenRequest> expected = readStrictly(bytes, kLimits);
  for (const auto& [piece, seed] :
       {std::pair{bytes.size() + 1, 0U}, {1U, 0U}, {1U, 1U + data[0]}}) {
    const std::vector<SeenRequest> seen = serve(bytes, piece, seed);
    if (seen == expected) continue;
    show("strict", expected);
    show("served", seen);
    std::abort();
  }
  return 0;
}
