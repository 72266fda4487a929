// The idle connections of one server, the opening of every conversation, and the
// steps that all conversations share.
//
// A pool is a stack: the connection returned last is handed out first. It has no
// size limit and no age limit, and shrinks only when a connection fails, when it
// is flushed and with its proxy. A connection's road:
//
//   connect + ping --> in use, new ----+--> returnVeskConnectionToPool --> idle
//   idle --> getVeskConnection- ------>|                                    |
//            FromPool: in use, pooled  +--> destroyVeskConnection: gone     |
//                                           proxy_destroyPooledSockets <----+
//
// Ownership: a connection is the pool's while idle, one request's otherwise.
// Threads: any. Unless a function says REQUIRES, `lock` of the proxy must not be
// held: it is taken for field work, and for the closing of sockets in a flush.
// Failure: null or -1, with the reason in lastError of the request: ENOBUFS
// without memory, else what the socket operations leave there; that is 0 after a
// success.
#pragma once

#include "proxy/vesk_proxy.h"

// A new, empty pool from permMalloc, or null without memory, with lastError
// unchanged. `host` is dotted IPv4 text; what can't be read as that fails at the
// first connect. Of `port` the low 16 bits count. Takes no lock.
[[nodiscard]] proxyPool* initPool(vesk_request* req, veskProxy* proxy, const char* host,
                                  std::int32_t port);

// An open connection that is ready for a frame: an idle one, else a new one that
// has taken a ping. Blocks for the connect and the ping, with no lock held. On
// null, lastError is unchanged if no connect was tried: at shutdown, or when this
// request has failed before and the server is in its retry pause.
[[nodiscard]] VeskConnection* getVeskConnectionFromPool(veskProxy* proxy,
                                                        vesk_request* req);

// Takes back a connection after PROXY_FINISH or a ping, and clears the retry
// timer. The caller must not touch it again.
void returnVeskConnectionToPool(vesk_request* req, veskProxy* proxy,
                                VeskConnection* connection);

// Ends a connection after any failure and frees the record: the caller must not
// touch it again. Reads lastError to judge whether the server is down and whether
// the idle connections are flushed.
void destroyVeskConnection(vesk_request* req, veskProxy* proxy,
                           VeskConnection* connection);

// Closes every idle connection.
// REQUIRES: `lock` of the proxy is held; it stays held while sockets close.
void proxy_destroyPooledSockets(vesk_request* req, veskProxy* proxy);

// Sends one PROXY_PING: 0 or more, or negative with lastError. Blocks.
[[nodiscard]] std::int32_t sendPingMsg(vesk_request* req, veskProxy* proxy,
                                       std::int32_t sock);

// Opens a conversation: sends a finished frame and reads the first command into
// `outCommand`. Pooled connections that prove stale are replaced, so the server
// may see the frame twice. The connection, or null. The frame stays the caller's.
// Blocks, with no lock held.
[[nodiscard]] VeskConnection* sendCommand(veskProxy* proxy, vesk_request* req,
                                          const char* frame, std::int32_t length,
                                          std::int32_t* outCommand);

// Reads the next command of a conversation: 0, or -1 with a log line and
// lastError as readWord leaves it; then `outCommand` is unchanged. Blocks.
[[nodiscard]] std::int32_t readCommand(vesk_request* req, veskProxy* proxy,
                                       std::int32_t sock, std::int32_t* outCommand);

// Whether a command ends a conversation: PROXY_FINISH, well; 0 or below, not.
[[nodiscard]] bool endsConversation(std::int32_t command);

// What the handler of a command says: how the conversation goes on.
enum class Next { readCommand, abort };

// The operand of PROXY_PUT_CLUSTER_SEQ: where it comes from, where it goes to,
// and the flag of the trace line about it.
struct ClusterSequence {
  std::int32_t sock;
  std::int32_t* out;  // the caller's; may be null
  std::uint64_t traceFlag;
};

// Reads that operand, and traces it. On abort there is a log line, lastError is
// as readWord leaves it, and `out` is unchanged. Blocks.
[[nodiscard]] Next readClusterSequence(vesk_request* req, veskProxy* proxy,
                                       const ClusterSequence& sequence);
