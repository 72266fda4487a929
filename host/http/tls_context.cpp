#include "http/tls_context.h"

#include <openssl/ssl.h>

namespace host {

namespace ssl = boost::asio::ssl;
using Error = boost::system::error_code;

// Of TLS 1.2; those of 1.3 are all good.
constexpr char kCiphers[] = "ECDHE+AESGCM:ECDHE+CHACHA20";

static std::string failure(const std::string& file, const Error& error) {
  return "can't use \"" + file + "\": " + error.message();
}

static void secure(SSL_CTX* context) {
  constexpr unsigned char kSessions[] = "vesk-host";
  (void)SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  (void)SSL_CTX_set_cipher_list(context, kCiphers);
  (void)SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION |
                                         SSL_OP_CIPHER_SERVER_PREFERENCE |
                                         SSL_OP_PRIORITIZE_CHACHA);
  (void)SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE |
                                      SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                      SSL_MODE_RELEASE_BUFFERS);
  // Without a name of its own no session with a client's certificate is resumed.
  (void)SSL_CTX_set_session_id_context(context, kSessions, sizeof(kSessions) - 1);
}

static std::string trust(const TlsFiles& files, ssl::context* context) {
  if (files.client == ClientCertificate::none) return {};
  Error error;
  (void)context->load_verify_file(files.clientAuthorities, error);
  if (error) return failure(files.clientAuthorities, error);
  // The names are a hint for the client's choice of a certificate.
  SSL_CTX_set_client_CA_list(context->native_handle(),
                             SSL_load_client_CA_file(files.clientAuthorities.c_str()));
  const bool required = files.client == ClientCertificate::required;
  (void)context->set_verify_mode(
      ssl::verify_peer | (required ? ssl::verify_fail_if_no_peer_cert : 0), error);
  return error ? failure(files.clientAuthorities, error) : std::string();
}

std::string openTlsContext(const TlsFiles& files, TlsContext* context) {
  auto made = std::make_shared<ssl::context>(ssl::context::tls_server);
  Error error;
  secure(made->native_handle());
  (void)made->use_certificate_chain_file(files.certificate, error);
  if (error) return failure(files.certificate, error);
  (void)made->use_private_key_file(files.key, ssl::context::pem, error);
  if (error) return failure(files.key, error);
  if (SSL_CTX_check_private_key(made->native_handle()) != 1) {
    return "the key \"" + files.key + "\" isn't that of \"" + files.certificate + "\"";
  }
  std::string reason = trust(files, made.get());
  if (reason.empty()) *context = std::move(made);
  return reason;
}

}  // namespace host
