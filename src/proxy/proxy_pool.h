// The idle connections of one server, and how new ones are made.
//
// A pool is a stack: the connection returned last is handed out first. It has no
// size limit. It shrinks when a connection fails, when it is flushed, with its proxy,
// and with the guard `idle` by age. A connection's road:
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
// request has failed before and the server is in its retry pause. It is ETIMEDOUT when
// the request is past its deadline.
[[nodiscard]] VeskConnection* getVeskConnectionFromPool(veskProxy* proxy,
                                                        vesk_request* req);

// Whether a connection has lain idle: it may have gone stale, and a failure on it says
// nothing about the server.
[[nodiscard]] bool isPooled(const VeskConnection* connection);

// What to do with a connection, how to tell that it failed, and whether to go on.
struct ConnectionTry {
  // True when it went well; else lastError holds the reason.
  bool (*run)(vesk_request* req, veskProxy* proxy, std::int32_t sock, void* context);
  // Called when the connection of a failed try is gone; null: there is nothing to say.
  void (*report)(vesk_request* req, veskProxy* proxy, std::int32_t sock, bool pooled,
                 const void* context);
  // Asked when a pooled one has failed: whether another may be tried; null: it may.
  bool (*mayGoOn)(vesk_request* req, veskProxy* proxy, const void* context);
  void* context;
};

// Tries connections until one does: that one, which is the caller's, or null. A pooled
// one that fails is replaced, and with the guard `latebytes` one on which anything has
// come meanwhile isn't tried at all; a failure on a new one is final. Blocks, with no
// lock held.
[[nodiscard]] VeskConnection* takeConnection(veskProxy* proxy, vesk_request* req,
                                             const ConnectionTry& attempt);

// Takes back a connection after PROXY_FINISH or a ping, and clears the retry
// timer. The caller must not touch it again.
void returnVeskConnectionToPool(vesk_request* req, veskProxy* proxy,
                                VeskConnection* connection);

// Ends a connection after any failure and frees the record: the caller must not
// touch it again. Reads lastError to judge whether the server is down and whether
// the idle connections are flushed.
void destroyVeskConnection(vesk_request* req, veskProxy* proxy,
                           VeskConnection* connection);

// Marks a server as down that was asked and gave no answer. Takes `lock`.
void takeOutOfService(vesk_request* req, veskProxy* proxy);

// Closes the connections that have lain idle for too long, where the guard `idle` says
// so. Takes `lock`; the sockets are closed without it.
void closeAgedConnections(vesk_request* req, veskProxy* proxy);

// Closes every idle connection.
// REQUIRES: `lock` of the proxy is held; it stays held while sockets close.
void proxy_destroyPooledSockets(vesk_request* req, veskProxy* proxy);

// Sends one PROXY_PING: 0 or more, or negative with lastError. Blocks.
[[nodiscard]] std::int32_t sendPingMsg(vesk_request* req, veskProxy* proxy,
                                       std::int32_t sock);
