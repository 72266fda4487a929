#include "ctl/fetch_url.h"

#include <algorithm>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <chrono>
#include <stdexcept>

#include "ctl/display.h"

namespace ctl {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;

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

// A visit with one end for all of its steps.
class PageVisit {
 public:
  PageVisit(const Url& wanted, double seconds)
      : url(wanted),
        end(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(seconds))) {}

  std::string run();

 private:
  // Starts a step, which is given what to call when it is done, and waits for that.
  template <typename Step>
  void await(const Step& step);
  template <typename Stream>
  std::string exchange(Stream& stream);
  std::string exchangeSecurely(tcp::socket& plain);

  const Url& url;
  Clock::time_point end;
  asio::io_context context{1};
};

template <typename Step>
void PageVisit::await(const Step& step) {
  // What is still under way at the end is never called: nobody runs the context again.
  boost::system::error_code result = asio::error::timed_out;
  step([&result](const boost::system::error_code& error, const auto&...) {
    result = error;
  });
  context.restart();
  (void)context.run_until(end);
  if (result) throw boost::system::system_error(result);
}

template <typename Stream>
std::string PageVisit::exchange(Stream& stream) {
  constexpr unsigned kVersion = 11;
  http::request<http::empty_body> request(http::verb::get, url.target, kVersion);
  request.set(http::field::host, url.authority);
  request.set(http::field::user_agent, "vesk-ctl/" VESK_VERSION);
  request.set(http::field::connection, "close");
  await([&](auto done) { http::async_write(stream, request, done); });
  beast::flat_buffer buffer;
  http::response_parser<http::string_body> parser;
  parser.body_limit(kMostPage);
  await([&](auto done) { http::async_read(stream, buffer, parser, done); });
  const http::response<http::string_body>& answer = parser.get();
  if (answer.result() == http::status::ok) return answer.body();
  throw std::runtime_error("status " + std::to_string(answer.result_int()) + " " +
                           visible(std::string(answer.reason())));
}

std::string PageVisit::exchangeSecurely(tcp::socket& plain) {
  asio::ssl::context settings(asio::ssl::context::tls_client);
  settings.set_default_verify_paths();
  settings.set_verify_mode(asio::ssl::verify_peer);
  asio::ssl::stream<tcp::socket&> stream(plain, settings);
  stream.set_verify_callback(asio::ssl::host_name_verification(url.host));
  if (SSL_set_tlsext_host_name(stream.native_handle(), url.host.c_str()) != 1)
    throw std::runtime_error("no host for TLS: " + visible(url.host));
  await([&](auto done) { stream.async_handshake(asio::ssl::stream_base::client, done); });
  return exchange(stream);
}

std::string PageVisit::run() {
  tcp::resolver resolver(context);
  const auto found = resolver.resolve(url.host, url.port);
  tcp::socket socket(context);
  await([&](auto done) { asio::async_connect(socket, found, done); });
  return url.secure ? exchangeSecurely(socket) : exchange(socket);
}

std::string fetchUrl(const std::string& text, double seconds) {
  const Url url = splitUrl(text);
  try {
    return PageVisit(url, seconds).run();
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error(visible(text) + ": " + visible(error.code().message()));
  } catch (const std::runtime_error& error) {
    throw std::runtime_error(visible(text) + ": " + error.what());
  }
}

}  // namespace ctl
