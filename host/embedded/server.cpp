#include "embedded/server.h"

#include <sys/signalfd.h>
#include <sys/socket.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>

#include "embedded/acceptor.h"
#include "embedded/run_request.h"
#include "embedded/waiting_room.h"
#include "embedded/workers.h"
#include "http/tls_channel.h"

namespace host {

namespace asio = boost::asio;
using Error = boost::system::error_code;

// How often a stopping server looks whether the last request has ended, and how
// long one that has lost its client may take to notice.
constexpr std::chrono::milliseconds kStopPoll{20};
constexpr std::chrono::seconds kCutTime{1};

class Server::Loop {
 public:
  explicit Loop(ServerState* state);

  std::string bind();
  std::string start();
  int run(void (*reopen)());

  [[nodiscard]] const std::vector<Listener>& listeners() const {
    return listeners_;
  }

 private:
  using Clock = std::chrono::steady_clock;

  [[nodiscard]] const Limits& limits() const {
    return state_->config->limits;
  }
  std::string readCertificates();
  Acceptor::Settings acceptorSettings();
  bool makeRoom();
  void acceptFailed(const char* reason);
  void welcome(int socket, const Acceptor::Endpoint& peer, LocalSide local);
  Ending serve(Client* client);
  bool awaitHead(Client* client, Ending* ending);
  void handBack(std::unique_ptr<Client> client, Ending ending);
  void settle(std::unique_ptr<Client> client, Ending ending);
  std::string watchSignals();
  void awaitSignal();
  void onSignal(int number);
  void reload();
  void stop();
  void pollStop();
  void cutOff();

  ServerState* state_;
  TlsContext tls_;  // of connections to come
  std::atomic<int> clients_{0};
  asio::io_context loop_{1};  // may hold clients to its end
  std::vector<Listener> listeners_;
  std::deque<Acceptor> acceptors_;
  WaitingRoom room_;
  asio::posix::stream_descriptor signals_;
  asio::steady_timer stopTimer_;
  Clock::time_point stopTime_{};  // at which running requests are cut off
  bool cut_ = false;
  void (*reopen_)() = nullptr;
  Workers workers_;  // ends first: its threads use all of the others
};

Server::Loop::Loop(ServerState* state)
    : state_(state),
      room_(&loop_, {&state->config->limits, state->limitLog,
                     [this](std::unique_ptr<Client> client) {
                       workers_.add(std::move(client));
                     }}),
      signals_(loop_),
      stopTimer_(loop_),
      workers_([this](Client* client) { return serve(client); },
               [this](std::unique_ptr<Client> client, Ending ending) {
                 handBack(std::move(client), ending);
               }) {}

// --- clients that come ----------------------------------------------------------

std::string Server::Loop::bind() {
  for (const ListenLine& line : state_->config->listeners) {
    listeners_.emplace_back();
    const std::string reason = openListener(line, &listeners_.back());
    if (!reason.empty()) return line.where + ": " + reason;
  }
  const std::string address = unclaimedSocket(listeners_);
  if (address.empty()) return readCertificates();
  return "the service manager passes a socket of " + address +
         ", which no Listen line names";
}

// Those of connections that exist already stay with them.
std::string Server::Loop::readCertificates() {
  const TlsFiles& files = state_->config->tls;
  if (files.certificate.empty()) return {};
  std::string reason = openTlsContext(files, &tls_);
  if (!reason.empty()) reason = files.where + ": " + reason;
  return reason;
}

Acceptor::Settings Server::Loop::acceptorSettings() {
  return {[this] { return clients_ >= limits().maxConnections; },
          [this] { return makeRoom(); },
          [this](const char* reason) { acceptFailed(reason); },
          [this](int socket, const Acceptor::Endpoint& peer, LocalSide local) {
            welcome(socket, peer, local);
          }};
}

std::string Server::Loop::start() {
  for (const Listener& listener : listeners_) {
    std::string reason = startListening(listener);
    if (!reason.empty()) return reason;
    acceptors_.emplace_back(&loop_, listener, acceptorSettings()).start();
  }
  workers_.start(static_cast<std::size_t>(limits().threads));
  return watchSignals();
}

// The client that has been quiet for longest makes room for one that has something
// to say.
bool Server::Loop::makeRoom() {
  if (room_.closeIdlest()) return true;
  state_->limitLog->tellLine(
      "MaxConnections is met, and none of them is idle: others wait");
  return false;
}

void Server::Loop::acceptFailed(const char* reason) {
  state_->limitLog->tellLoss(reason);
  (void)room_.closeIdlest();
}

// That of an IPv4 client on an IPv6 socket as IPv4.
static std::string addressText(const asio::ip::address& address) {
  const bool mapped = address.is_v6() && address.to_v6().is_v4_mapped();
  if (!mapped) return address.to_string();
  return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
}

// A client's first head has often come with it, and then it needs no place in the
// room; a handshake takes its time.
void Server::Loop::welcome(int socket, const Acceptor::Endpoint& peer,
                           LocalSide local) try {
  auto channel = local.tls ? openTlsChannel(socket, tls_) : openPlainChannel(socket);
  if (!channel) return;
  auto client = std::make_unique<Client>(&clients_);
  client->channel = std::move(channel);
  client->peer = peer;
  client->address = addressText(peer.address());
  client->local = local;
  if (local.tls) return room_.enter(std::move(client));
  const auto most = static_cast<std::size_t>(limits().requestHead) + 1;
  const ssize_t count = receiveInput(client.get(), most, Wait::none);
  if (count == 0 || (count < 0 && errno != EAGAIN)) return;
  const bool whole = nextHead(client.get(), limits()) != HeadState::incomplete;
  whole ? workers_.add(std::move(client)) : room_.enter(std::move(client));
} catch (const std::exception& error) {
  state_->limitLog->tellLoss(error.what());
}

// --- clients that are served ----------------------------------------------------

// Waits for the next head of a client that has been served, for as long as that
// costs nobody else a thread: true when it is there. One that comes in parts is for
// the loop, which minds its time.
bool Server::Loop::awaitHead(Client* client, Ending* ending) {
  if (nextHead(client, limits()) != HeadState::incomplete) return true;
  *ending = state_->stopping ? Ending::close : Ending::wait;
  const bool begun = !client->input.waiting().empty();
  if (state_->stopping || begun || !workers_.plenty()) return false;
  const auto most = static_cast<std::size_t>(limits().requestHead) + 1;
  const ssize_t count = receiveInput(client, most, Wait::brief);
  const bool quiet = count < 0 && errno == EAGAIN;
  if (count <= 0 && !quiet) *ending = Ending::close;
  return count > 0 && nextHead(client, limits()) != HeadState::incomplete;
}

Ending Server::Loop::serve(Client* client) {
  ReadHead read;
  Ending ending;
  do {
    takeHead(state_, client, &read);
    const Fate fate = runRequest(state_, client, read);
    client->served = true;
    if (fate == Fate::close) return Ending::close;
    if (fate == Fate::part) return Ending::part;
    if (!awaitHead(client, &ending)) return ending;
  } while (!workers_.busy());
  return Ending::again;
}

// On the thread of a worker.
void Server::Loop::handBack(std::unique_ptr<Client> client, Ending ending) {
  asio::post(loop_, [this, ending, held = std::move(client)]() mutable {
    settle(std::move(held), ending);
  });
}

void Server::Loop::settle(std::unique_ptr<Client> client, Ending ending) try {
  if (ending == Ending::part) {
    room_.part(std::move(client));
  } else if (!state_->stopping) {
    room_.enter(std::move(client));
  }
} catch (const std::exception& error) {
  state_->limitLog->tellLoss(error.what());
}

// --- signals ----------------------------------------------------------------------

std::string Server::Loop::watchSignals() {
  sigset_t set;
  (void)sigemptyset(&set);
  for (const int number : {SIGTERM, SIGINT, SIGHUP, SIGUSR1})
    (void)sigaddset(&set, number);
  const int file = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
  if (file < 0) return std::string("can't wait for signals: ") + std::strerror(errno);
  signals_.assign(file);
  awaitSignal();
  return {};
}

void Server::Loop::awaitSignal() {
  signals_.async_wait(
      asio::posix::stream_descriptor::wait_read, [this](const Error& error) {
        if (error) return;
        signalfd_siginfo info{};
        const bool came =
            read(signals_.native_handle(), &info, sizeof(info)) == sizeof(info);
        if (came) onSignal(static_cast<int>(info.ssi_signo));
        awaitSignal();
      });
}

// What is wrong with the new files leaves the old ones in use.
void Server::Loop::reload() {
  reopen_();
  const std::string reason = readCertificates();
  if (!reason.empty()) state_->log->write(LOG_FAILURE, "vesk-host", reason);
}

// A second signal ends the process at once, with whatever is in progress.
void Server::Loop::onSignal(int number) {
  if (number == SIGHUP || number == SIGUSR1) return reload();
  if (state_->stopping) std::_Exit(1);
  stop();
}

void Server::Loop::stop() {
  (void)sd_notify(0, "STOPPING=1");
  state_->stopping = true;
  for (Acceptor& acceptor : acceptors_) acceptor.stop();
  room_.closeWaiting();
  workers_.finish();
  stopTime_ = Clock::now() + std::chrono::seconds(limits().stopTimeout);
  pollStop();
}

void Server::Loop::cutOff() {
  const int count = workers_.cut();
  if (count == 0) return;
  state_->log->write(LOG_WARN, "vesk-host",
                     std::to_string(count) +
                         " requests hadn't ended after StopTimeout, "
                         "and lose their clients");
}

// Requests that are still running at the end of their time lose their clients, which
// ends all but those that wait for somebody else.
void Server::Loop::pollStop() {
  const auto now = Clock::now();
  if (workers_.running() == 0 && room_.empty()) return loop_.stop();
  if (now >= stopTime_ + kCutTime) return loop_.stop();
  if (now >= stopTime_ && !cut_) cutOff();
  cut_ = now >= stopTime_;
  stopTimer_.expires_after(kStopPoll);
  stopTimer_.async_wait([this](const Error& error) {
    if (!error) pollStop();
  });
}

int Server::Loop::run(void (*reopen)()) {
  reopen_ = reopen;
  (void)loop_.run();
  return workers_.running();
}

// --- the server -------------------------------------------------------------------

Server::Server(ServerState* state)
    : state_(state), loop_(std::make_unique<Loop>(state)) {}

Server::~Server() = default;

std::string Server::bind() {
  return loop_->bind();
}

std::vector<std::string> Server::addresses() const {
  std::vector<std::string> urls;
  for (const Listener& listener : loop_->listeners()) urls.push_back(listener.url);
  return urls;
}

std::string Server::start() {
  return loop_->start();
}

int Server::run(void (*reopen)()) {
  return loop_->run(reopen);
}

}  // namespace host
