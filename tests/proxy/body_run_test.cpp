#include "proxy/body_run.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "context/request_setup.h"
#include "proxy/wire.h"

static std::string word(std::int32_t number) {
  char bytes[kWordSize];
  putWord(bytes, number);
  return {bytes, sizeof bytes};
}

static std::string textOf(std::size_t size) {
  std::string text(size, '-');
  for (std::size_t i = 0; i < size; ++i) text[i] = static_cast<char>('a' + i % 23);
  return text;
}

// What is there when the first block is read, what becomes one run of it, and what waits
// behind that. The first command has been read already.
TEST(bodyRun, takesTheBlocksThatWaitWholeAndNoMore) {
  const std::string head = word(PROXY_PUT_CLIENT);
  const struct {
    std::vector<std::size_t> sizes;
    std::string behind;
    std::int32_t blocks;
  } rows[] = {
      {{5}, "", 1},
      {{0}, "", 1},
      {{5, 7, 9}, "", 3},
      {{5, 7}, head + word(9) + "only 8..", 2},
      {{5}, head, 1},
      {{5}, head + word(0), 1},
      {{5}, head + word(-1) + "12345678", 1},
      {{5}, word(PROXY_FINISH) + word(4) + "1234", 1},
      {{9000, 9000, 9000}, head, 1},  // the first buffer holds less than two
      {{70000}, "", 1},               // and none holds this one
  };
  for (const auto& [sizes, behind, blocks] : rows) {
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    std::string sent;
    std::string body;
    std::int32_t number = 0;
    for (const std::size_t size : sizes) {
      sent += (sent.empty() ? "" : head) + word(static_cast<std::int32_t>(size));
      sent += textOf(size);
      if (number++ < blocks) body += textOf(size);
    }
    sent += behind;
    ASSERT_EQ(write(pair[1], sent.data(), sent.size()),
              static_cast<ssize_t>(sent.size()));
    vesk_request req;
    init_vesk_request(&req);
    veskReadAhead ahead;
    startReadAhead(&req, &ahead);
    Conversation talk{};
    talk.req = &req;
    talk.sock = pair[0];
    {
      const BodyRun run{&talk};
      ASSERT_NE(run.bytes, nullptr) << sent.size();
      EXPECT_TRUE(std::string(run.bytes, static_cast<std::size_t>(run.length)) == body)
          << run.length << " of " << body.size();
      EXPECT_EQ(run.blocks, blocks) << sent.size();
    }
    EXPECT_EQ(countReadAhead(&req) > 0, !behind.empty());
    endReadAhead(&req, &ahead);
    close(pair[0]);
    close(pair[1]);
  }
}
