// What the server's side of TLS rests on: certificate, key, and whom it trusts to
// name clients.
//
// Ownership: shared by the loop and every connection that began with it, so that a
// newer one replaces it without harm to them.
// Threads: made by one; connections of any thread use it. Errors: a text.
#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

namespace host {

enum class ClientCertificate { none, optional, required };

// Absolute paths, since they are read again while the server runs.
struct TlsFiles {
  std::string certificate;  // with those of its chain behind it
  std::string key;
  std::string clientAuthorities;
  ClientCertificate client = ClientCertificate::none;
  std::string where;  // of the certificate's line, for messages
};

using TlsContext = std::shared_ptr<boost::asio::ssl::context>;

// Reads the files. TLS 1.2 and 1.3 with ciphers that keep what was said secret even
// if the key is lost. Empty for success; else a reason that names the file, and
// `context` stays as it was.
[[nodiscard]] std::string openTlsContext(const TlsFiles& files, TlsContext* context);

}  // namespace host
