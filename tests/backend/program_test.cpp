// The program itself: its line on standard output, its end after a signal.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdio>

#include "peer.h"

namespace backend_test {

static int connectTo(int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  return fd;
}

struct StopRow {
  int signal;
  const char* query;  // for how long the conversation runs
  bool finished;
};

TEST(program, endsAfterWhatRunsUnlessThatRunsOn) {
  for (const StopRow row : {StopRow{SIGTERM, "blocks=2&size=3&ms=300", true},
                            StopRow{SIGINT, "blocks=2&size=3&ms=600000", false}}) {
    FILE* output =
        popen("echo $$; exec '" VESK_BACKEND_PROGRAM "' --listen 127.0.0.1:0", "r");
    int id = 0;
    int port = 0;
    ASSERT_EQ(fscanf(output, "%d listening on 127.0.0.1:%d", &id, &port), 2);
    const Wire idle(connectTo(port));
    const Wire busy(connectTo(port));
    busy.send(word(12) + frameOf({"/demo/stream", row.query}));
    EXPECT_EQ(busy.receive(4), word(6)) << "the conversation has begun";
    EXPECT_EQ(kill(id, row.signal), 0);
    EXPECT_EQ(idle.receive(), "");
    EXPECT_NE(busy.receive(4), "");
    const std::string rest = busy.receive();
    EXPECT_EQ(rest.ends_with(word(9)), row.finished);
    EXPECT_EQ(pclose(output), 0);
  }
}

}  // namespace backend_test
