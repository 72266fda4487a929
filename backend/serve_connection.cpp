#include "backend/serve_connection.h"

#include <exception>
#include <optional>
#include <string_view>

#include "backend/address.h"
#include "backend/log.h"
#include "backend/pages/serve_page.h"
#include "backend/property_sets.h"
#include "backend/server.h"
#include "backend/wire/bytes.h"
#include "backend/wire/connection.h"
#include "backend/wire/exchange.h"
#include "backend/wire/protocol.h"
#include "backend/wire/request.h"

namespace backend {

// The text of a property set; nothing when there is no set of that name.
static std::optional<std::string> propertySet(Server& server, const std::string& local,
                                              std::string_view name,
                                              const ClusterList* cluster) {
  if (name == "server-props") return serverProps(server.options);
  if (name == "servlet-mappings") return servletMappings(server.options);
  if (name != "clustered-servers") return std::nullopt;
  // Without a cluster the address that the peer has used is the whole list; the
  // one listened on may be 0.0.0.0, which nobody can connect to from outside.
  return cluster ? clusteredServers(cluster->servers) : clusteredServers({local});
}

// The list of servers is looked up once: its number and its members must be of
// the same state, or the peer would keep old members under the new number.
static void answerProps(Server& server, Connection& connection) {
  const std::string name = connection.readText(kMaxSetName);
  const auto cluster = server.cluster.current();
  const std::optional<std::string> text =
      propertySet(server, connection.local(), name, cluster.get());
  if (cluster && name == "clustered-servers") {
    appendWord(connection.out, PROXY_PUT_CLUSTER_SEQ);
    appendWord(connection.out, cluster->sequence);
  }
  if (text) {
    appendWord(connection.out, PROXY_PUT_PROPS);
    appendText(connection.out, *text);
  } else {
    logLine(connection.peer(), "asked for the unknown property set '" + name + "'");
  }
  appendWord(connection.out, PROXY_FINISH);
  connection.flush();
}

static void answerRequest(Server& server, Connection& connection) {
  const std::string block = connection.readText(kMaxRequestBlock);
  const ServiceRequest request = parseServiceRequest(block);
  ReplyTail tail;
  tail.loadValue = server.options.loadValue;
  const auto cluster = server.cluster.current();
  if (cluster) tail.clusterSequence = cluster->sequence;
  Exchange exchange(connection, tail);
  servePage(server, connection, request, exchange);
}

static void answer(Server& server, Connection& connection, std::int32_t command) {
  switch (command) {
    case PROXY_GET_PROPS:
      return answerProps(server, connection);
    case PROXY_SERVICE_40:
      return answerRequest(server, connection);
    default:
      throw ProtocolError("command " + std::to_string(command) +
                          " opens no conversation");
  }
}

// A ping opens no conversation and gets no answer: that this side is still
// there is all that the peer wants to know.
static void serveUntilClosed(Server& server, Connection& connection, int fd) {
  while (connection.waitForByte()) {
    const std::int32_t command = connection.readWord();
    if (command == PROXY_PING) continue;
    if (!server.connections.begin(fd)) return;
    answer(server, connection, command);
    if (!server.connections.end(fd)) return;
  }
}

void serveConnection(Server& server, int fd, const std::string& peer) {
  try {
    Connection connection(fd, peer, localNameOf(fd));
    serveUntilClosed(server, connection, fd);
  } catch (const ProtocolError& error) {
    logLine(peer, std::string("protocol error, connection closed: ") + error.what());
  } catch (const std::exception& error) {
    logLine(peer, std::string("connection closed: ") + error.what());
  }
  server.connections.remove(fd);
}

}  // namespace backend
