#include "http/tls_channel.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

namespace host {

// What one record of TLS holds at most.
constexpr std::size_t kRecord = 16 << 10;

namespace {

struct FreeSsl {
  void operator()(SSL* ssl) const {
    SSL_free(ssl);
  }
};

using SslPtr = std::unique_ptr<SSL, FreeSsl>;

class TlsChannel final : public Channel {
 public:
  TlsChannel(int socket, SslPtr ssl, TlsContext context)
      : socket_(socket), context_(std::move(context)), ssl_(std::move(ssl)) {}

  // A stream that ends without a word of TLS looks cut off, so that word is said
  // where nothing is missing.
  ~TlsChannel() override {
    if (!broken_ && SSL_is_init_finished(ssl_.get())) (void)SSL_shutdown(ssl_.get());
    ssl_.reset();
    (void)close(socket_);
  }

  // What comes behind a failure is nobody's, and is read to be rid of it.
  ssize_t receive(char* to, std::size_t size, Wait wait) override {
    if (broken_) return recv(socket_, to, size, MSG_DONTWAIT);
    ssize_t count = receiveNow(to, size);
    const bool again = count < 0 && errno == EAGAIN && wait == Wait::brief;
    if (!again) return count;
    if (this->wait(kBriefWait) > 0) return receiveNow(to, size);
    errno = EAGAIN;
    return -1;
  }

  // Parts are put together, so that a head and a small body are one record.
  ssize_t send(std::span<const iovec> parts, bool) override {
    char record[kRecord];
    std::size_t size = 0;
    for (const iovec& part : parts) {
      const std::size_t count = std::min(part.iov_len, kRecord - size);
      if (count > 0) std::memcpy(record + size, part.iov_base, count);
      size += count;
    }
    return write(record, size);
  }

  ssize_t sendFile(int file, off_t offset, std::size_t count) override {
    char record[kRecord];
    const ssize_t size = pread(file, record, std::min(count, kRecord), offset);
    return size <= 0 ? size : write(record, static_cast<std::size_t>(size));
  }

  void endSending() override {
    if (!broken_ && SSL_is_init_finished(ssl_.get())) (void)SSL_shutdown(ssl_.get());
    broken_ = true;
    (void)shutdown(socket_, SHUT_WR);
  }

  void abandon() override {
    broken_ = true;
  }

  int wait(int milliseconds) override {
    pollfd file{socket_, awaits_, 0};
    return poll(&file, 1, milliseconds);
  }

  int socket() const override {
    return socket_;
  }

  void leaveLoop() override {}  // nobody's calls block on it

  bool holdsUnread() const override {
    char byte;
    return holdsBytes() || recv(socket_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) > 0;
  }

  bool holdsBytes() const override {
    return SSL_pending(ssl_.get()) > 0;
  }

  const char* failure() const override {
    return failure_.c_str();
  }

  TlsFacts tls() const override;

 private:
  ssize_t receiveNow(char* to, std::size_t size) {
    ERR_clear_error();
    std::size_t count = 0;
    const int result = SSL_read_ex(ssl_.get(), to, size, &count);
    return result == 1 ? static_cast<ssize_t>(count) : judge(result);
  }

  ssize_t write(const char* bytes, std::size_t size) {
    ERR_clear_error();
    std::size_t count = 0;
    const int result = SSL_write_ex(ssl_.get(), bytes, size, &count);
    return result == 1 ? static_cast<ssize_t>(count) : judge(result);
  }

  // What a call that gave no byte means, in the terms of a channel.
  ssize_t judge(int result) {
    const int reason = errno;
    switch (SSL_get_error(ssl_.get(), result)) {
      case SSL_ERROR_WANT_READ:
        return later(POLLIN);
      case SSL_ERROR_WANT_WRITE:
        return later(POLLOUT);
      case SSL_ERROR_ZERO_RETURN:
        return 0;
      case SSL_ERROR_SYSCALL:
        broken_ = true;
        errno = reason == 0 || reason == EAGAIN ? ECONNRESET : reason;
        return -1;
      default:
        return protocolFailure();
    }
  }

  ssize_t later(short events) {
    awaits_ = events;
    errno = EAGAIN;
    return -1;
  }

  // A client that just hangs up is no news.
  ssize_t protocolFailure() {
    const unsigned long code = ERR_peek_error();
    broken_ = true;
    const bool hungUp = ERR_GET_REASON(code) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
    const char* text = ERR_reason_error_string(code);
    failure_ = std::string("TLS: ") + (text ? text : "failed");
    errno = hungUp ? ECONNRESET : EPROTO;
    return -1;
  }

  int socket_;
  TlsContext context_;
  SslPtr ssl_;
  std::string failure_;
  bool broken_ = false;  // nothing more can or shall be said
};

}  // namespace

// The text between the first and the last line of a certificate's PEM form.
static std::string certificateText(X509* certificate) {
  BIO* memory = certificate ? BIO_new(BIO_s_mem()) : nullptr;
  if (!memory) return {};
  (void)PEM_write_bio_X509(memory, certificate);
  char* bytes = nullptr;
  const long size = BIO_get_mem_data(memory, &bytes);
  const std::string pem(bytes, size > 0 ? static_cast<std::size_t>(size) : 0);
  (void)BIO_free(memory);
  const std::size_t begin = pem.find('\n') + 1;
  const std::size_t end = pem.find("\n-----END ");
  return end == std::string::npos ? std::string() : pem.substr(begin, end - begin);
}

TlsFacts TlsChannel::tls() const {
  const SSL_CIPHER* cipher = SSL_get_current_cipher(ssl_.get());
  X509* certificate = SSL_get1_peer_certificate(ssl_.get());
  TlsFacts facts{SSL_CIPHER_get_bits(cipher, nullptr), SSL_CIPHER_get_name(cipher),
                 certificateText(certificate)};
  X509_free(certificate);
  return facts;
}

std::unique_ptr<Channel> openTlsChannel(int socket, const TlsContext& context) {
  SslPtr ssl(SSL_new(context->native_handle()));
  (void)fcntl(socket, F_SETFL, O_NONBLOCK);
  const bool ready = ssl && SSL_set_fd(ssl.get(), socket) == 1;
  if (ready) SSL_set_accept_state(ssl.get());
  std::unique_ptr<Channel> channel;
  if (ready) {
    channel.reset(new (std::nothrow) TlsChannel(socket, std::move(ssl), context));
  }
  if (!channel) (void)close(socket);
  return channel;
}

}  // namespace host
