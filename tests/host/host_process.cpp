#include "host_process.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <utility>

namespace host {

static std::string readFile(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

static void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

// The shell tells its process id, which stays that of the program.
HostProcess::HostProcess(std::string config, const std::string& argument) {
  const std::string mark = "@PLUGIN@";
  std::size_t at = config.find(mark);
  if (at != std::string::npos) config.replace(at, mark.size(), HOST_TEST_PLUGIN);
  std::string pattern = testing::TempDir() + "hostXXXXXX";
  folder_ = mkdtemp(pattern.data());
  std::filesystem::create_directories(folder_ + "/htdocs/sub");
  std::filesystem::create_directory(folder_ + "/htdocs/bare");
  writeFile(folder_ + "/htdocs/index.html", "front");
  writeFile(folder_ + "/htdocs/sub/index.jsp", "inner");
  writeFile(folder_ + "/htdocs/a b.css", "style");
  writeFile(folder_ + "/secret", "secret");
  writeFile(folder_ + "/host.conf", config);
  std::string command = "echo $$; exec '" HOST_PROGRAM "' " + argument + " '" + folder_ +
                        "/host.conf' 2>'" + folder_ + "/err'";
  output_ = popen(command.c_str(), "r");
  EXPECT_EQ(fscanf(output_, "%d", &process_), 1);
}

HostProcess::~HostProcess() {
  signal(SIGKILL);
  if (output_) (void)wait();
  std::filesystem::remove_all(folder_);
}

int HostProcess::port() {
  int port = 0;
  EXPECT_EQ(fscanf(output_, " listening on http://127.0.0.1:%d", &port), 1) << errors();
  return port;
}

void HostProcess::signal(int number) const {
  if (output_ && process_ > 0) (void)kill(process_, number);
}

int HostProcess::wait() {
  while (fgetc(output_) != EOF) {
  }
  int status = pclose(std::exchange(output_, nullptr));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string HostProcess::errors() const {
  return readFile(folder_ + "/err") + readFile(folder_ + "/error.log");
}

Client::Client(int port) : socket_(socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  const timeval patience{20, 0};
  (void)setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
}

Client::~Client() {
  (void)close(socket_);
}

void Client::send(const std::string& bytes) const {
  auto size = static_cast<ssize_t>(bytes.size());
  EXPECT_EQ(::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL), size);
}

void Client::endSending() const {
  (void)shutdown(socket_, SHUT_WR);
}

bool Client::readSome() {
  char bytes[65536];
  ssize_t count = recv(socket_, bytes, sizeof(bytes), 0);
  EXPECT_FALSE(count < 0 && errno == EAGAIN) << "nothing came behind: " << read_;
  if (count > 0) read_.append(bytes, static_cast<std::size_t>(count));
  return count > 0;
}

std::string Client::readTo(const std::string& text) {
  std::size_t at;
  while ((at = read_.find(text)) == std::string::npos) {
    if (!readSome()) return std::exchange(read_, {}) + "<end>";
  }
  std::string result = read_.substr(0, at + text.size());
  read_.erase(0, at + text.size());
  return result;
}

std::string Client::readToEnd() {
  while (readSome()) {
  }
  return std::exchange(read_, {});
}

}  // namespace host
