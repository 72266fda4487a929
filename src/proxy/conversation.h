// A conversation with a server: how it opens, goes on and ends.
//
//   sendCommand --> first command --> handler, next command ... --> PROXY_FINISH: pooled
//        |                               |         |
//        +-- no connection               +---------+--> abandoned: connection gone
//
// The connector opens with one frame; from then on the server sends commands. What it
// may say, and what beginning and end mean, is the conversation's kind: a table of
// commands and three functions. The record, the loop and the endings are the same for
// all.
//
// Ownership: the record is a local of whoever converses; its connection is returned
// to the pool or destroyed by runConversation.
// Threads: any; a conversation belongs to one. `lock` of the proxy must not be held.
// Failure: null, -1 or Next::abort, with the reason in lastError of the request.
#pragma once

#include <cstddef>

#include "context/read_ahead.h"
#include "proxy/vesk_proxy.h"

struct ConversationKind;

struct Conversation {
  const ConversationKind* kind;
  vesk_request* req;
  veskProxy* proxy;
  std::int32_t* sequence;      // of the caller, for the cluster's number; may be null
  VeskConnection* connection;  // null until it is open
  std::int32_t sock;           // of the connection
  std::int32_t command;        // the one in hand
  // Of a properties conversation only.
  const char* set;        // the name asked for
  propertyTable* answer;  // owned by the caller; the last one that came, or null
};

// What a handler says: how the conversation goes on.
enum class Next { readCommand, abort };

// One command that a server may send. PROXY_FINISH stands in no table: it ends the
// loop and needs no handler.
struct CommandRow {
  std::int32_t command;
  const char* name;  // of its trace line; null: the handler traces by itself
  // Reads all operands, acts, answers; never reads the next command. On abort,
  // lastError holds the reason, as far as the operations tell one.
  Next (*handle)(Conversation* talk);
};

struct ConversationKind {
  const CommandRow* rows;
  std::size_t count;
  std::uint64_t sequenceTraceFlag;  // of the line about PROXY_PUT_CLUSTER_SEQ
  // Logs a command that no row has, and sets lastError where the kind says so.
  void (*refuse)(Conversation* talk);
  // Runs at PROXY_FINISH, before the connection goes back.
  void (*finish)(Conversation* talk);
  // Runs at any other end, before the connection is destroyed: lastError, as it leaves
  // it, is what the server is judged by.
  void (*abandon)(Conversation* talk);
};

// What a request needs while it converses: it reads ahead, and a receive limit is put
// off while the server takes pings, unless `conversationLimit` sets an end that no ping
// moves. For locals only.
struct ConversationScope {
  explicit ConversationScope(vesk_request* owner);
  ~ConversationScope();
  ConversationScope(const ConversationScope&) = delete;
  ConversationScope& operator=(const ConversationScope&) = delete;

  vesk_request* req;
  std::int64_t outerDeadline;
  veskReadAhead ahead;  // of this conversation's socket alone
};

// Sends a finished frame and reads the first command into `outCommand`. Pooled
// connections that prove stale are replaced, so the server may see the frame twice. The
// connection, or null. The frame stays the caller's. Blocks, with no lock held.
[[nodiscard]] VeskConnection* sendCommand(veskProxy* proxy, vesk_request* req,
                                          const char* frame, std::int32_t length,
                                          std::int32_t* outCommand);

// Opens a conversation by sendCommand: 0, or -1. REQUIRES: a ConversationScope lives.
[[nodiscard]] std::int32_t openConversation(Conversation* talk, const char* frame,
                                            std::int32_t length);

// Lets the server drive an open conversation to its end: 0 when it has finished, else
// -1; the connection is gone or pooled then. Blocks. REQUIRES: as openConversation.
[[nodiscard]] std::int32_t runConversation(Conversation* talk);

// A string of the command in hand that nobody needs beyond it. A short one lies in the
// record itself, so that the many texts of a response's head cost no allocation. For
// locals only. Blocks.
struct Operand {
  explicit Operand(const Conversation* talk);
  ~Operand();
  Operand(const Operand&) = delete;
  Operand& operator=(const Operand&) = delete;

  vesk_request* req;
  char* bytes;  // with a NUL behind them; null on failure, as in wire.h
  char room[256];
};

// Operands of the command in hand. A string or block with a NUL behind it, to be
// given back through `free`, or null; a word, 0 or -1. Failure as in wire.h. Block.
[[nodiscard]] char* readOperand(const Conversation* talk, std::int32_t* outLength);
[[nodiscard]] std::int32_t readNumber(const Conversation* talk, std::int32_t* out);

// Handlers that kinds share.

// PROXY_PUT_CLUSTER_SEQ: its number goes to `sequence`. It traces once it has read the
// number; without one there is a log line, and `sequence` is unchanged.
[[nodiscard]] Next onPutClusterSeq(Conversation* talk);
