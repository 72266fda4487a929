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

// The head of a record of TLS that holds an alert or a handshake.
static bool isTls(std::string_view bytes) {
  return bytes.size() >= 2 && (bytes[0] == '\x15' || bytes[0] == '\x16') &&
         bytes[1] == '\x03';
}

std::string judgeFirstBytes(std::string_view bytes) {
  // A server's words begin with zeroes; one that broke off within a word stays its own.
  if (bytes.size() < kWordSize && bytes.find_first_not_of('\0') == bytes.npos) return {};
  if (isTls(bytes)) return "answered in TLS: not a Vesk port";
  if (bytes.size() >= kWordSize && isServerCommand(getWord(bytes.data()))) return {};
  return "answered \"" + visible(bytes) + "\": not a Vesk port";
}

// The first bytes of the answer to a greeting.
static std::string greet(const sockaddr_in& address, std::string_view greeting,
                         std::int32_t limit) {
  vesk_request req;
  init_vesk_request(&req);
  req.connectTimeout = req.sendTimeout = req.recvTimeout = limit;
  const std::int32_t sock = req.connect(&req, &address);
  if (sock < 0) return {};
  char bytes[kWordSize];
  const auto length = static_cast<std::int32_t>(greeting.size());
  const bool sent = sendBytes(&req, greeting.data(), length, sock) == length;
  const bool came = sent && receiveFully(&req, bytes, kWordSize, sock, nullptr) == 0;
  req.closeSocket(&req, sock);
  return came ? std::string(bytes, kWordSize) : std::string();
}

std::string tryOtherProtocols(const sockaddr_in& address, std::int32_t limit) {
  using namespace std::string_view_literals;
  constexpr std::string_view kGreetings[] = {
      "GET / HTTP/1.0\r\n\r\n"sv,
      // A greeting of TLS that breaks off, which must be answered by an alert.
      "\x16\x03\x01\x00\x05\x01\x00\x00\x01\x00"sv};
  std::string answer;
  for (std::size_t i = 0; i < std::size(kGreetings) && answer.empty(); ++i)
    answer = greet(address, kGreetings[i], limit);
  return answer;
}

}  // namespace ctl
