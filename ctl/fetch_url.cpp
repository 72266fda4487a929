#include "ctl/fetch_url.h"

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <chrono>
#include <exception>
#include <optional>
#include <stdexcept>

#include "ctl/display.h"

namespace ctl {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::use_awaitable;
using Tls = asio::ssl::stream<beast::tcp_stream>;

constexpr std::string_view kPlain = "http://";
constexpr std::string_view kSecure = "https://";

struct Url {
  bool secure = false;
  std::string authority;  // host and port as they stand there
  std::string host;
  std::string port;
  std::string target;
};

bool isUrl(const std::string& text) {
  return text.starts_with(kPlain) || text.starts_with(kSecure);
}

std::string withParameter(const std::string& url, const std::string& parameter) {
  const std::string bare = url.substr(0, url.find('#'));
  const std::size_t mark = bare.find('?');
  if (mark == std::string::npos) return bare + "?" + parameter;
  const std::string query = "&" + bare.substr(mark + 1) + "&";
  return query.find("&" + parameter + "&") == std::string::npos ? bare + "&" + parameter
                                                                : bare;
}

// Host and port; an address of IPv6 stands in brackets.
static void splitAuthority(Url& url) {
  const std::size_t bracket = url.authority.find(']');
  const std::size_t from = bracket == std::string::npos ? 0 : bracket;
  const std::size_t colon = url.authority.find(':', from);
  url.host = url.authority.substr(0, colon);
  if (bracket != std::string::npos) url.host = url.authority.substr(1, bracket - 1);
  url.port = url.secure ? "443" : "80";
  if (colon != std::string::npos) url.port = url.authority.substr(colon + 1);
}

static Url splitUrl(const std::string& text) {
  Url url;
  url.secure = text.starts_with(kSecure);
  const std::size_t begin = url.secure ? kSecure.size() : kPlain.size();
  const std::size_t path = std::min(text.find_first_of("/?", begin), text.size());
  url.authority = text.substr(begin, path - begin);
  url.target = text.substr(path, text.find('#') - path);
  if (!url.target.starts_with('/')) url.target.insert(0, "/");
  splitAuthority(url);
  const bool blank = text.find_first_of(" \t\r\n") != std::string::npos;
  if (blank || url.host.empty() || text.find('@') < path)
    throw std::runtime_error("no URL of a page: " + visible(text));
  return url;
}

template <typename Stream>
static asio::awaitable<std::string> exchange(Stream& stream, const Url& url) {
  http::request<http::empty_body> request(http::verb::get, url.target, 11);
  request.set(http::field::host, url.authority);
  request.set(http::field::user_agent, "vesk-ctl/" VESK_VERSION);
  request.set(http::field::connection, "close");
  co_await http::async_write(stream, request, use_awaitable);
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(kMostPage);
  co_await http::async_read(stream, buffer, parser, use_awaitable);
  if (parser.get().result() == http::status::ok) co_return parser.get().body();
  throw std::runtime_error("status " + std::to_string(parser.get().result_int()) + " " +
                           visible(std::string(parser.get().reason())));
}

static asio::awaitable<std::string> exchangeSecurely(beast::tcp_stream& plain,
                                                     const Url& url) {
  asio::ssl::context context(asio::ssl::context::tls_client);
  context.set_default_verify_paths();
  context.set_verify_mode(asio::ssl::verify_peer);
  Tls stream(std::move(plain), context);
  stream.set_verify_callback(asio::ssl::host_name_verification(url.host));
  if (SSL_set_tlsext_host_name(stream.native_handle(), url.host.c_str()) != 1)
    throw std::runtime_error("no host for TLS: " + visible(url.host));
  co_await stream.async_handshake(asio::ssl::stream_base::client, use_awaitable);
  co_return co_await exchange(stream, url);
}

static asio::awaitable<std::string> visit(const Url& url, double seconds) {
  const auto executor = co_await asio::this_coro::executor;
  asio::ip::tcp::resolver resolver(executor);
  const auto found = co_await resolver.async_resolve(url.host, url.port, use_awaitable);
  beast::tcp_stream stream(executor);
  stream.expires_after(std::chrono::duration_cast<std::chrono::milliseconds>(
      std::chrono::duration<double>(seconds)));
  co_await stream.async_connect(found, use_awaitable);
  if (url.secure) co_return co_await exchangeSecurely(stream, url);
  co_return co_await exchange(stream, url);
}

static std::string run(const Url& url, double seconds) {
  asio::io_context context(1);
  std::string page;
  std::exception_ptr failure;
  asio::co_spawn(context, visit(url, seconds),
                 [&](std::exception_ptr thrown, std::string came) {
                   failure = thrown;
                   page = std::move(came);
                 });
  context.run();
  if (failure) std::rethrow_exception(failure);
  return page;
}

std::string fetchUrl(const std::string& text, double seconds) {
  const Url url = splitUrl(text);
  try {
    return run(url, seconds);
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error(visible(text) + ": " + visible(error.code().message()));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(visible(text) + ": " + error.what());
  }
}

}  // namespace ctl
