// Runs vesk-host with a configuration of its own, and talks to it byte by byte.
//
// Ownership: a HostProcess owns its folder and its process; both are gone when
// it is destroyed. Threads: one. Errors: a failed GoogleTest assertion, or what
// the function tells. A client waits 20 seconds for the next byte.
#pragma once

#include <cstdio>
#include <string>

namespace host {

class HostProcess {
 public:
  // Writes htdocs and `config`, with @PLUGIN@ replaced, and starts the program
  // with `argument` before the file's name.
  explicit HostProcess(std::string config, const std::string& argument = {});
  HostProcess(const HostProcess&) = delete;
  ~HostProcess();

  // The port that it announces, to be asked for once; 0 when it ends without.
  int port();
  void signal(int number) const;
  // Waits for its end: the exit status, or -1.
  int wait();
  [[nodiscard]] std::string errors() const;  // standard error and error log

 private:
  std::string folder_;
  FILE* output_;
  int process_ = 0;
};

class Client {
 public:
  explicit Client(int port);
  Client(const Client&) = delete;
  ~Client();

  void send(const std::string& bytes) const;
  // Says that nothing more will come.
  void endSending() const;
  // All that comes until `text` has come; what follows it is kept. On the end
  // of the stream, what came before and "<end>".
  std::string readTo(const std::string& text);
  std::string readToEnd();

 private:
  bool readSome();

  int socket_;
  std::string read_;
};

}  // namespace host
