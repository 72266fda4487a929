// The per-request record: through it all connector logic reaches the outside.
//
// It carries the state of one request and a table of operations for whatever
// the logic may ask of its surroundings: headers, body, response, memory, files,
// log lines, sockets and the time. request_setup.h installs every default that needs
// no host; a connector layer adds the six host operations and the log.
//
// Ownership: whoever declares a record owns it. At its end it needs
// freeAttributes, freeAttributeNames and releaseKeptBlocks, in this order.
// Threads: a record belongs to the thread that declared it. Nothing in it locks.
// Failure: an operation that fails says so in its result and in `lastError`;
// allocators log and give null, and never stop the process.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <cstdio>
#include <type_traits>

struct veskAttributeIndex;
struct veskProxy;
struct veskReadAhead;
struct vesk_request;

// One attribute of a request, newest first in the list.
struct veskAttribute {
  const char* name;   // a reference, valid until freeAttributes
  const void* value;  // a reference, valid until freeAttributes
  veskAttribute* next;
  std::int32_t count;  // length of the list from this node on
  std::int32_t size;   // bytes of `value`
};

// A block that lives until the request has ended; see keepBlock.
struct veskKeptBlock {
  veskKeptBlock* next;
  void* block;
};

// What of a request has gone out, and may have to go out again; see proxy/replay.h.
struct veskReplay {
  std::int32_t frameSent;  // 1: a byte of the frame may have reached a server
  std::int32_t reported;   // 1: the log has been told why there is no other attempt
  std::int32_t brokeOff;   // 1: the browser did, within the body
  std::int64_t bodyRead;   // bytes of the body that the browser has sent so far
  char* held;              // the first of them, owned; null: none are held
  std::int32_t heldSize;   // bytes of `held`
  std::int32_t given;      // of those, to the running attempt
  // As they were when the running attempt began.
  std::int32_t frameSentBefore;
  std::int64_t bodyReadBefore;
};

// What became of a request, for the host and its logs.
enum : std::int32_t {
  kOutcomeUnknown = 0,  // it never came to an attempt
  kOutcomeServed,       // a server's answer has gone out whole
  kOutcomeBroken,       // a response had begun and can't be completed
  kOutcomeFailed,       // no server answered; what the browser got is not a server's
  kOutcomeDeclined,     // the request is not the connector's
};
constexpr std::int32_t kOutcomeKinds = kOutcomeDeclined + 1;

// What became of the session that the browser brought, in a response of a server's.
enum : std::int32_t {
  kSessionNone = 0,  // the browser brought none, and got none
  kSessionKept,      // its owner has answered
  kSessionMoved,     // another server has
  kSessionNew,       // the answer has set one that is not the browser's
};

struct veskOutcome {
  std::int32_t kind;      // a kOutcome value
  std::int32_t attempts;  // servers that were tried, each time counted
  char server[64];        // name of the last one; empty: none was
  char state[3];          // two letters of proxy/request_outcome.h
  std::int64_t micros;    // microseconds in all attempts together
  std::int32_t session;   // a kSession value, of the last attempt
  // The session's server: it was tried, or is out of service. Null: not known. The
  // table's, as every proxy.
  const veskProxy* sessionOwner;
};

// A response as it was before the first attempt; kept by markResponse.
struct veskResponseMark {
  std::int32_t made;    // 1: the fields below tell
  std::int32_t status;  // 0: none was set
  const char** texts;   // names and values of its headers in turn, then null; owned.
                        // Null: it had none, or there was no memory for them
};

constexpr int kLogPrefixSize = 64;

// What filled a record, in `connectorType`.
constexpr std::int32_t kConnectorNone = 0;
constexpr std::int32_t kConnectorNsapi = 3;

struct vesk_request {
  std::int32_t connectorType;  // kConnectorNone or kConnectorNsapi

  // The host's objects, opaque here; null in globalRequest.
  void* pb;  // parameters of the running stage
  void* sn;  // the session
  void* rq;  // the request

  char logPrefix[kLogPrefixSize];  // names this request in log lines

  std::int32_t lastError;        // 0, an errno value or an EVESK_ code
  std::int32_t noClientOutput;   // 1: the host wants no body for this response
  std::int32_t hasPostData;      // 1 while the request body may be read
  std::int32_t responseStarted;  // 1 once body or an error page went out
  std::int32_t deferError;       // 1: proxyerror logs and writes no page

  veskAttribute* attributes;  // newest first, null when empty
  char** attributeNames;      // last result of getAttributeNames, owned
  // The client's headers in the host's order, both ended by null. The arrays
  // are the record's, the texts the host's.
  const char** headerNames;
  const char** headerValues;
  const char* uri;         // the host's text, null in globalRequest
  const char* path;        // the host's text; set by the filter stage alone
  std::int64_t startTime;  // milliseconds since the epoch
  char* sessionId;         // owned while a request is dispatched, else null

  // Milliseconds.
  std::int32_t connectTimeout;
  std::int32_t sendTimeout;
  std::int32_t recvTimeout;

  // Value of a request header or CGI-style variable, or null. Given back with
  // freeHeader.
  const char* (*getHeader)(vesk_request* req, const char* name);
  void (*freeHeader)(vesk_request* req, const char* value);
  // The values of the variables that every frame carries, all at once; each is given back
  // as above. Null: getHeader is asked for each; whoever replaces that clears this.
  void (*getVariables)(vesk_request* req, const char** values);
  // File path of a URI: a copy to release with `free`, or null.
  char* (*getRealPath)(vesk_request* req, const char* uri);
  // Reads at most `length` body bytes: the count, 0 at the end, -1 once when the
  // client broke off. May block.
  std::int32_t (*getPostData)(vesk_request* req, char* buffer, std::int32_t length);
  void (*setStatus)(vesk_request* req, std::int32_t status, const char* reason);
  void (*addHeader)(vesk_request* req, const char* name, const char* value);
  // Sends body bytes to the client, the head of the response before the first:
  // 0, or -1 with lastError. A length of 0 only starts the response. May block.
  std::int32_t (*writeClient)(vesk_request* req, const char* buffer, std::int32_t length);

  std::int32_t clientWriteFailures;  // consecutive ones; kept by writeClient

  // Copies the newest value of that name to a destination of getAttributeSize
  // bytes; without one the destination stays as it was.
  void (*getAttribute)(vesk_request* req, const char* name, void* destination);
  std::int32_t (*getAttributeSize)(vesk_request* req, const char* name);  // or 0
  // Names, newest first, ended by null; null for none. The record owns them.
  char** (*getAttributeNames)(vesk_request* req);
  // Puts an attribute at the head; keeps references to name and value. On
  // exhausted memory the list stays as it was.
  void (*setAttribute)(vesk_request* req, const char* name, const void* value,
                       std::int32_t size);
  void (*freeAttributes)(vesk_request* req);  // the nodes, not what they refer to
  void (*freeAttributeNames)(vesk_request* req);

  // Memory that lasts no longer than the request. A size of 0 or below gives one
  // byte; null on failure.
  void* (*malloc)(vesk_request* req, std::int32_t size);
  char* (*strdup)(vesk_request* req, const char* text);
  void (*free)(vesk_request* req, void* block);
  // Memory that outlives the request, with the same rules.
  void* (*permMalloc)(vesk_request* req, std::int32_t size);
  void (*permFree)(vesk_request* req, void* block);
  char* (*permStrdup)(vesk_request* req, const char* text);

  // As fopen, with "r", "w" or "a", closed on exec. Never waits: what is neither a file
  // nor a folder can't be opened.
  std::FILE* (*fileOpen)(vesk_request* req, const char* path, const char* mode);

  // Log lines: always, with the option `verbose`, and with a trace flag (1 state
  // changes and configuration, 2 fine detail, 4 dump of host variables). traceE is
  // null in a record of init_allocators.
  [[gnu::format(printf, 2, 3)]] void (*log)(vesk_request* req, const char* format, ...);
  [[gnu::format(printf, 2, 3)]] void (*trace)(vesk_request* req, const char* format, ...);
  [[gnu::format(printf, 3, 4)]] void (*traceE)(vesk_request* req, std::uint64_t flags,
                                               const char* format, ...);

  // The socket operations; their contracts stand in sockets.h. All may block.
  std::int32_t (*connect)(vesk_request* req, const sockaddr_in* address);
  void (*closeSocket)(vesk_request* req, std::int32_t sock);
  std::int32_t (*send)(vesk_request* req, std::int32_t sock, const void* buffer,
                       std::int32_t length);
  std::int32_t (*recv)(vesk_request* req, std::int32_t sock, void* buffer,
                       std::int32_t length, veskProxy* proxy);

  veskKeptBlock* keptBlocks;  // see keepBlock
  veskReadAhead* readAhead;   // of the conversation, else null; see read_ahead.h

  // Seconds since the epoch. All that is decided by the time is decided by this.
  std::int64_t (*now)(vesk_request* req);
  // Asked at the end of a receive limit: 1 when `proxy` took a ping, so that the wait
  // goes on; 0 makes the limit final. Null does as well: a conversation sets it for
  // its own time. Blocks. REQUIRES: `lock` of the proxy is not held.
  std::int32_t (*pingServer)(vesk_request* req, veskProxy* proxy);

  veskAttributeIndex* attributeIndex;  // owned; of a long list, see attributes.h

  // What an idle socket holds, a kIdle value. Doesn't block; leaves lastError alone.
  std::int32_t (*peek)(vesk_request* req, std::int32_t sock);
  // Milliseconds of a clock that never jumps; only differences mean anything.
  std::int64_t (*ticks)(vesk_request* req);
  std::uint32_t guards;   // bits of Guard, see guards.h
  std::int64_t deadline;  // in ticks: no wait lasts beyond it; 0: none
  // Milliseconds that a conversation about a server may take as a whole, whatever pings
  // that server still takes; 0: no such end.
  std::int32_t conversationLimit;
  std::int32_t endsAtShutdown;  // 1: a wait ends soon after the shutdown has begun
  std::int64_t bytesSent;       // that sockets have accepted from this request so far
  const char* method;           // the host's text; null in globalRequest
  veskReplay replay;
  veskOutcome outcome;

  // With the guard `attempt`: notes status and headers of the response as they are, and
  // brings them back to that after a failed attempt. Nothing may have been sent yet.
  void (*markResponse)(vesk_request* req);
  void (*restoreResponse)(vesk_request* req);
  veskResponseMark responseMark;
  std::int32_t holdsTable;  // 1: others wait for what it asks; see held_requests.h
};
static_assert(std::is_trivial_v<vesk_request> && std::is_standard_layout_v<vesk_request>);

// Bits of veskEnabledTraceFlags.
constexpr std::uint64_t kTraceState = 1;
constexpr std::uint64_t kTraceDetail = 2;
constexpr std::uint64_t kTraceDump = 4;

// Process-wide settings: written before the first request, only read since.
extern std::int32_t veskNSAPIVerbose;        // 1: `trace` writes
extern std::uint64_t veskEnabledTraceFlags;  // mask of `traceE`
extern std::int32_t veskUseApiAlloc;         // 1: request memory from the host's pool
extern std::int32_t veskMetrics;             // 1: proxies collect metrics
extern std::int32_t soTimeouts[3];           // connect, send, receive; milliseconds
extern std::uint32_t veskGuards;             // bits of Guard, see guards.h
extern std::int32_t veskIdleTimeout;         // of a pooled connection; seconds
extern std::int32_t veskMaintenanceTimeout;  // of a question about a server; seconds
extern std::int32_t veskRequestTimeout;      // of a request as a whole; seconds, 0: none
extern std::int32_t veskMaxPerServer;        // conversations at once; 0: no limit
extern vesk_request globalRequest;           // for start-up and shutdown work

// The defaults of those that have one, in seconds.
constexpr std::int32_t kDefaultIdleTimeout = 60;
constexpr std::int32_t kDefaultMaintenanceTimeout = 5;

// Whether the connector is shutting down. Set once; any thread may read.
extern std::uint8_t gShutdown;
[[nodiscard]] bool isShuttingDown();
void setShuttingDown(bool on);

// Has the record release `block` with `free` once the request has ended: for
// what attributes refer to. 0, or -1 when memory runs out; then the block stays
// the caller's.
[[nodiscard]] std::int32_t keepBlock(vesk_request* req, void* block);

// Releases what keepBlock was given. Call it after freeAttributes.
void releaseKeptBlocks(vesk_request* req);
