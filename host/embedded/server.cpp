#include "embedded/server.h"

#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "embedded/client_input.h"
#include "embedded/run_request.h"

namespace host {

constexpr int kMaxListeners = 64;

static ServerState* stateOf(mg_connection* connection) {
  return static_cast<ServerState*>(mg_get_user_data(mg_get_context(connection)));
}

static int onRequest(mg_connection* connection) {
  ServerState* state = stateOf(connection);
  ++state->running;
  int status = runRequest(state, connection);
  --state->running;
  return status;
}

static void* onThread(const mg_context*, int type) {
  if (type == 0) ClientInput::ofThread().becomeListener();
  return nullptr;
}

static int onConnection(const mg_connection*, void**) {
  (void)ClientInput::ofThread().open();  // without memory, bodies can't be read
  return 0;
}

static void onClose(const mg_connection*) {
  ClientInput::ofThread().close();
}

static int onLogMessage(const mg_connection* connection, const char* message) {
  auto* state = static_cast<ServerState*>(mg_get_user_data(mg_get_context(connection)));
  if (state) state->log->write(LOG_WARN, "civetweb", message);
  return 1;
}

Server::~Server() {
  stop();
}

static std::string joined(const Config& config) {
  std::string ports;
  for (const auto& [listener, where] : config.listeners) {
    ports += (ports.empty() ? "" : ",") + listener;
  }
  return ports;
}

std::string Server::start() {
  std::string ports = joined(*state_->config);
  std::string threads = std::to_string(state_->config->threads);
  std::string timeout = std::to_string(kClientTimeout);
  // The time limit covers one wait for the client, not a request: a plug-in may
  // take as long as it likes. CivetWeb serves no file and judges no URI.
  const char* options[] = {"listening_ports",
                           ports.c_str(),
                           "num_threads",
                           threads.c_str(),
                           "request_timeout_ms",
                           timeout.c_str(),
                           "enable_keep_alive",
                           "yes",
                           "keep_alive_timeout_ms",
                           "15000",
                           "tcp_nodelay",
                           "1",
                           "max_request_size",
                           "65536",
                           "decode_url",
                           "no",
                           "enable_auth_domain_check",
                           "no",
                           nullptr};
  mg_callbacks callbacks{};
  callbacks.begin_request = onRequest;
  callbacks.init_thread = onThread;
  callbacks.init_connection = onConnection;
  callbacks.connection_close = onClose;
  callbacks.log_message = onLogMessage;
  char text[256] = "";
  unsigned code = 0;
  mg_error_data error{&code, text, sizeof(text)};
  mg_init_data init{&callbacks, state_, options};
  (void)mg_init_library(0);
  context_ = mg_start2(&init, &error);
  if (context_) return {};
  return "can't listen on " + ports + ": " + (text[0] ? text : "no reason given");
}

std::vector<std::string> Server::addresses() const {
  mg_server_port ports[kMaxListeners]{};
  int count = mg_get_server_ports(context_, kMaxListeners, ports);
  std::vector<std::string> addresses;
  for (int i = 0; i < count; ++i) {
    const std::string& wanted =
        state_->config->listeners[static_cast<std::size_t>(i)].first;
    addresses.push_back("http://" + wanted.substr(0, wanted.rfind(':') + 1) +
                        std::to_string(ports[i].port));
  }
  return addresses;
}

static bool accepts(int file) {
  int accepting = 0;
  socklen_t size = sizeof(accepting);
  return getsockopt(file, SOL_SOCKET, SO_ACCEPTCONN, &accepting, &size) == 0 && accepting;
}

static int localPort(int file) {
  sockaddr_storage address{};
  socklen_t size = sizeof(address);
  if (getsockname(file, reinterpret_cast<sockaddr*>(&address), &size) < 0) return -1;
  if (address.ss_family == AF_INET) {
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
  }
  if (address.ss_family == AF_INET6) {
    return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
  }
  return -1;
}

static std::vector<int> openFiles() {
  std::vector<int> files;
  DIR* folder = opendir("/proc/self/fd");
  if (!folder) return files;
  while (const dirent* entry = readdir(folder)) {
    int file = std::atoi(entry->d_name);
    if (entry->d_name[0] != '.' && file != dirfd(folder)) files.push_back(file);
  }
  (void)closedir(folder);
  return files;
}

// CivetWeb can stop listening only together with everything else, so its
// sockets are found among the open files. They are shut down and not closed: a
// number that was free again could name a client's socket by the time CivetWeb
// polls it.
void Server::stopListening() {
  if (!context_) return;
  state_->stopping = true;
  ClientInput::refuseClients();
  mg_server_port ports[kMaxListeners]{};
  int count = mg_get_server_ports(context_, kMaxListeners, ports);
  for (int file : openFiles()) {
    int port = accepts(file) ? localPort(file) : -1;
    bool ours = std::any_of(ports, ports + std::max(count, 0),
                            [port](const auto& p) { return p.port == port; });
    if (ours) (void)shutdown(file, SHUT_RDWR);
  }
}

int Server::running() const {
  return state_->running;
}

void Server::stop() {
  if (!context_) return;
  mg_stop(context_);
  context_ = nullptr;
  (void)mg_exit_library();
}

}  // namespace host
