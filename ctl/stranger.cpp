#include "ctl/stranger.h"

#include <algorithm>
#include <iterator>

#include "context/request_setup.h"
#include "ctl/display.h"
#include "proxy/wire.h"

namespace ctl {

// A server's first word, to whatever it was asked.
static bool isServerCommand(std::int32_t word) {
  constexpr std::int32_t kCommands[] = {
      PROXY_GET_HEADER,       PROXY_GET_REALPATH, PROXY_PUT_STATUS,
      PROXY_PUT_HEADER,       PROXY_PUT_CLIENT,   PROXY_FINISH,
      PROXY_PUT_PROPS,        PROXY_GET_DATA,     PROXY_SET_ATTRIBUTE,
      PROXY_PUT_HEADER_VALUE, PROXY_BUSY,         PROXY_PUT_CLUSTER_SEQ,
      PROXY_PUT_LOAD_VALUE};
  return std::find(std::begin(kCommands), std::end(kCommands), word) !=
         std::end(kCommands);
}

// The head of a record by which TLS reports an error.
static bool isTlsAlert(std::string_view bytes) {
  return bytes.size() >= 2 && bytes[0] == '\x15' && bytes[1] == '\x03';
}

std::string judgeFirstBytes(std::string_view bytes) {
  if (bytes.empty()) return {};
  if (isTlsAlert(bytes)) return "answered with an alert of TLS: not a Vesk port";
  if (bytes.size() >= kWordSize && isServerCommand(getWord(bytes.data()))) return {};
  return "answered \"" + visible(bytes) + "\": not a Vesk port";
}

std::string greetAsBrowser(const sockaddr_in& address, std::int32_t limit) {
  constexpr std::string_view kGreeting = "GET / HTTP/1.0\r\n\r\n";
  vesk_request req;
  init_vesk_request(&req);
  req.connectTimeout = req.sendTimeout = req.recvTimeout = limit;
  req.deadline = req.ticks(&req) + limit;
  const std::int32_t sock = req.connect(&req, &address);
  if (sock < 0) return {};
  char bytes[kWordSize];
  const auto length = static_cast<std::int32_t>(kGreeting.size());
  const bool sent = sendBytes(&req, kGreeting.data(), length, sock) == length;
  const bool came = sent && receiveFully(&req, bytes, kWordSize, sock, nullptr) == 0;
  req.closeSocket(&req, sock);
  return came ? std::string(bytes, kWordSize) : std::string();
}

}  // namespace ctl
