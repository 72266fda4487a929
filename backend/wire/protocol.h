// The proxy protocol as a server needs it: its numbers, and how a conversation
// ends badly.
//
// A word that arrives may be any number, so it is compared with these and never
// cast to an enumeration.
//
// Ownership: constants alone. Threads: any.
// Errors: the three below are thrown; each ends the conversation and, with it,
// the connection, since nobody can tell where in the stream of bytes the peer
// stands.
// Units: bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string_view>

namespace backend {

// Command words, in both directions, and item ids of the request block.
enum : std::int32_t {
  PROXY_GET_HEADER = 3,
  PROXY_GET_REALPATH = 4,
  PROXY_PUT_STATUS = 6,
  PROXY_PUT_HEADER = 7,
  PROXY_PUT_CLIENT = 8,
  PROXY_FINISH = 9,
  PROXY_PING = 12,
  PROXY_GET_PROPS = 13,
  PROXY_PUT_PROPS = 14,
  PROXY_GET_DATA = 15,
  PROXY_PUT_DATA = 16,
  PROXY_SET_ATTRIBUTE = 18,  // a command of ours and an item of the block alike
  PROXY_SET_URI = 23,
  PROXY_SET_EXTRA = 30,
  PROXY_HEADERS_END = 31,
  PROXY_SET_HEADER = 32,
  PROXY_PUT_HEADER_VALUE = 37,
  PROXY_BUSY = 38,
  PROXY_SERVICE_40 = 39,
  PROXY_PUT_CLUSTER_SEQ = 40,
  PROXY_PUT_LOAD_VALUE = 41,
  PROXY_SET_SESSION_ID = 42,
};

struct VariableRow {
  std::int32_t id;
  std::string_view name;
};

// The variables of a request block, in the order in which they arrive.
constexpr VariableRow kVariables[] = {
    {19, "QUERY_STRING"},    {22, "REQUEST_METHOD"},     {29, "SCRIPT_NAME"},
    {28, "PATH_INFO"},       {20, "REMOTE_HOST"},        {21, "REMOTE_ADDR"},
    {24, "SERVER_NAME"},     {25, "SERVER_PORT"},        {26, "SERVER_PROTOCOL"},
    {27, "PATH_TRANSLATED"}, {33, "SERVER_PORT_SECURE"}, {34, "REMOTE_USER"},
    {35, "AUTH_TYPE"},
};
constexpr std::size_t kVariableCount = sizeof(kVariables) / sizeof(kVariables[0]);

// Bytes of request body that one PROXY_PUT_DATA can hold.
constexpr std::int32_t kMaxDataFrame = 40960;

// A request block above this is refused: it is read whole before it is used.
constexpr std::int32_t kMaxRequestBlock = 16 * 1024 * 1024;

// Longest answer to PROXY_GET_HEADER and PROXY_GET_REALPATH that is taken.
constexpr std::int32_t kMaxAnswer = 1024 * 1024;

// Longest name of a property set that is read before it is looked at.
constexpr std::int32_t kMaxSetName = 256;

// The peer sent what the protocol doesn't allow.
struct ProtocolError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The peer closed or the socket failed in the middle of a conversation.
struct ConnectionLost : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// A page ends the connection on purpose; what was written has been flushed.
struct BrokenOff : std::runtime_error {
  using std::runtime_error::runtime_error;
};

}  // namespace backend
