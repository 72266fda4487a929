// What all conversations with a server share: their opening, their commands, their
// end.
//
// A conversation takes a connection of the pool. It opens with one frame; from then
// on the server sends commands, until one of them ends it.
//
// Ownership: the connection that sendCommand gives is the caller's, who returns it
// to the pool or destroys it.
// Threads: any; a conversation belongs to one. `lock` of the proxy must not be held.
// Failure: null, -1 or Next::abort, with the reason in lastError of the request.
#pragma once

#include "proxy/vesk_proxy.h"

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
