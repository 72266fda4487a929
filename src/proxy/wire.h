// The protocol between the connector and a server: numbers and byte primitives.
//
// A word is 4 bytes, most significant first, and is the only integer there is. A
// string or block is a word with its length and that many bytes. The connector
// opens a conversation with one frame; from then on the server sends commands.
//
// Ownership: buffers are the caller's; what readData returns goes back through
// `free` of the request.
// Threads: everything belongs to the request's thread; no lock is taken. All that
// moves bytes blocks, with the limits of the socket operations.
// Failure: -1 or null; lastError as the functions say.
// Units: lengths and positions are bytes.
#pragma once

#include "context/vesk_request.h"

// A word that arrives may be any number: it is compared, never cast to one of
// these.
enum : std::int32_t {
  // Open a conversation, connector to server.
  PROXY_PING = 12,        // no operands, no answer
  PROXY_GET_PROPS = 13,   // string: name of the set
  PROXY_SERVICE_40 = 39,  // word: bytes of the request block; the block

  // Server to connector.
  PROXY_GET_HEADER = 3,         // string: name
  PROXY_GET_REALPATH = 4,       // string: path of a URI
  PROXY_PUT_STATUS = 6,         // word: status; string: reason
  PROXY_PUT_HEADER = 7,         // string: lines "name: value", each with CR LF
  PROXY_PUT_CLIENT = 8,         // block: response body
  PROXY_FINISH = 9,             // no operands; all is well
  PROXY_PUT_PROPS = 14,         // string: property text
  PROXY_GET_DATA = 15,          // word: the most body bytes wanted
  PROXY_SET_ATTRIBUTE = 18,     // string: name; block: value. Also an item below
  PROXY_PUT_HEADER_VALUE = 37,  // string: name; string: value
  PROXY_BUSY = 38,              // no operands; the connection is dropped
  PROXY_PUT_CLUSTER_SEQ = 40,   // word: number of the cluster's server list
  PROXY_PUT_LOAD_VALUE = 41,    // word: load value, unsigned

  // The answer to PROXY_GET_DATA.
  PROXY_PUT_DATA = 16,  // word: count, 0 or -1 without bytes; the bytes

  // Items of the request block; the ids of the variables stand in VARIABLE_NAMES.
  PROXY_SET_URI = 23,         // string
  PROXY_SET_EXTRA = 30,       // string
  PROXY_HEADERS_END = 31,     // always the last item
  PROXY_SET_HEADER = 32,      // string: name; string: value
  PROXY_SET_SESSION_ID = 42,  // string
};

constexpr std::int32_t kWordSize = 4;
constexpr std::int32_t kFrameHead = 8;  // of every frame: a command and a length

// The variables that every request block carries, in the order of sending.
struct VariableName {
  std::int32_t id;
  const char* name;
};
constexpr std::int32_t kVariableCount = 13;
extern const VariableName VARIABLE_NAMES[kVariableCount];

// The one pair that puts and gets a word; no alignment is asked for.
void putWord(char* at, std::int32_t word);
[[nodiscard]] std::int32_t getWord(const char* at);

// Write into a buffer that the caller has sized, at `position`: the position
// behind. A null text is written as length 0.
[[nodiscard]] std::int32_t appendWord(char* buffer, std::int32_t position,
                                      std::int32_t word);
[[nodiscard]] std::int32_t appendString(char* buffer, std::int32_t position,
                                        const char* text);

// Sends all bytes: `length`, or -1 with lastError of the socket layer.
[[nodiscard]] std::int32_t sendBytes(vesk_request* req, const char* buffer,
                                     std::int32_t length, std::int32_t sock);

// Reads exactly `length` bytes: 0, or -1 with lastError of the socket layer, or
// ECONNRESET when the peer has closed. `proxy` lets a long wait test the server;
// it may be null.
[[nodiscard]] std::int32_t readFully(vesk_request* req, char* buffer, std::int32_t length,
                                     std::int32_t sock, veskProxy* proxy);

// The same by the operation alone, where what waits in the read-ahead is not meant.
[[nodiscard]] std::int32_t receiveFully(vesk_request* req, char* buffer,
                                        std::int32_t length, std::int32_t sock,
                                        veskProxy* proxy);

// Reads one word: 0, or -1 as readFully; then `out` is unchanged.
[[nodiscard]] std::int32_t readWord(vesk_request* req, std::int32_t sock,
                                    veskProxy* proxy, std::int32_t* out);

// Reads one string or block, with a NUL behind it; its length goes to `outLength`
// if that is not null. Null on failure, with lastError as readFully leaves it,
// ENOBUFS without memory, unchanged after a negative length.
[[nodiscard]] char* readData(std::int32_t sock, vesk_request* req,
                             std::int32_t* outLength, veskProxy* proxy);

// Memory of the caller's for a short text.
struct TextRoom {
  char* bytes;
  std::int32_t size;  // with the NUL
};

// The same without an allocation for what fits into the room: the result lies there
// then, and is else to be given back as above.
[[nodiscard]] char* readDataInto(std::int32_t sock, vesk_request* req,
                                 std::int32_t* outLength, veskProxy* proxy,
                                 const TextRoom& room);

// Sends `text` as one string in one piece; null goes out as length 0. 0 or -1;
// lastError is unchanged when memory runs out.
[[nodiscard]] std::int32_t writeString(vesk_request* req, std::int32_t sock,
                                       const char* text);
