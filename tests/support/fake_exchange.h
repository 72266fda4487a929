// The client of one request on the host layer, as a test scripts it: nothing but an
// Exchange that gives what it is told to and remembers what it got.
//
// Threads: the test's. Failure: as the script says.
#pragma once

#include <arpa/inet.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "layer/request.h"

class FakeExchange final : public host::Exchange {
 public:
  int readBody(unsigned char* buffer, int size) override {
    asked = size;
    if (unread.empty()) return readFailure;
    const std::string part = unread.front();
    const int count = std::min(size, static_cast<int>(part.size()));
    std::memcpy(buffer, part.data(), static_cast<std::size_t>(count));
    unread.erase(unread.begin());
    return count;
  }
  int startResponse(host::HostRequest* request) override {
    starts.push_back(request->status_num);
    return startResult;
  }
  int writeBody(const char* bytes, int size) override {
    errno = writeError;
    if (writeError != 0) return -1;
    body.append(bytes, static_cast<std::size_t>(size));
    return size;
  }
  [[nodiscard]] std::int64_t missing() const override {
    return -1;
  }
  bool peer(sockaddr_in* address) override {
    address->sin_port = htons(peerPort);
    return peerPort != 0;
  }
  char* clientName() override {
    return const_cast<char*>(dnsName);
  }
  char* translateUri(const char* /*uri*/, Session* /*session*/) override {
    return const_cast<char*>(translated);
  }
  conf_global_vars_s* settings() override {
    return &globals;
  }
  void log(int degree, const char* function, host::HostRequest* /*request*/,
           const char* message) override {
    lines.push_back(std::to_string(degree) + "|" + function + "|" + message);
  }

  // Lines that contain `part`. Each is "degree|function|message".
  [[nodiscard]] std::ptrdiff_t logged(const std::string& part) const {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
      return line.find(part) != std::string::npos;
    });
  }

  // What the client and its server are.
  std::vector<std::string> unread;  // what each read of the body brings
  int readFailure = 0;              // what it gives when nothing is left
  int startResult = REQ_PROCEED;
  int writeError = 0;             // writeBody fails with this errno
  std::uint16_t peerPort = 4711;  // 0: the client has no address
  const char* dnsName = nullptr;
  const char* translated = nullptr;  // the path of any URI
  char serverName[16] = "host.example";
  conf_global_vars_s globals{8080, serverName, 0};

  // What reached it.
  std::string body;
  int asked = 0;            // bytes that the last read of the body wanted
  std::vector<int> starts;  // the status of each response that was started
  std::vector<std::string> lines;
};
