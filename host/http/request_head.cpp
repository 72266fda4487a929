#include "http/request_head.h"

#include <algorithm>
#include <boost/beast/http/basic_parser.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <utility>

#include "layer/status.h"
#include "layer/text.h"

namespace host {

namespace http = boost::beast::http;
using Error = boost::beast::error_code;
using Text = boost::beast::string_view;

static std::string_view view(Text text) {
  return {text.data(), text.size()};
}

namespace {

// The library reads lines, names and values. What frames a body is judged here,
// since the library takes some of it in more than one form.
class HeadParser final : public http::basic_parser<true> {
 public:
  HeadParser(const Limits& limits, RequestHead* head) : limits_(limits), head_(head) {
    header_limit(~std::uint32_t{0});  // the scan has judged the size
    body_limit(boost::none);
  }

  // The status of a head that can't be taken; 0: none so far.
  int status = 0;
  // That of a good head which asks for more than a server can do.
  int expectation = 0;
  bool knownMethod = false;
  bool tunnels = false;

  [[nodiscard]] bool keeps() const {
    return keep_alive() && !closes_;
  }

  [[nodiscard]] bool hasHost() const {
    return hosts_ > 0;
  }

 private:
  void refuse(int why, Error* error) {
    status = why;
    *error = http::error::bad_field;
  }

  void on_request_impl(http::verb method, Text name, Text target, int version,
                       Error& error) override {
    constexpr int kVersion11 = 11;
    head_->method = view(name);
    head_->target = view(target);
    head_->http11 = version >= kVersion11;
    head_->headRequest = method == http::verb::head;
    knownMethod = method != http::verb::unknown;
    tunnels = method == http::verb::connect || method == http::verb::trace;
    if (target.size() > static_cast<std::size_t>(limits_.requestUri)) {
      refuse(kUriTooLong, &error);
    }
  }

  void on_field_impl(http::field field, Text name, Text text, Error& error) override {
    const std::string_view value = view(text);
    if (head_->fields.size() >= static_cast<std::size_t>(limits_.requestFields)) {
      return refuse(kHeadTooLarge, &error);
    }
    head_->fields.push_back({view(name), value});
    if (!takesField(field, value)) refuse(kBadRequest, &error);
  }

  bool takesField(http::field field, std::string_view value) {
    switch (field) {
      case http::field::host:
        return ++hosts_ == 1 && isHost(value);
      case http::field::content_length:
        head_->length = numberOf(value);
        return ++lengths_ == 1 && head_->length >= 0;
      case http::field::transfer_encoding:
        head_->chunked = equalsNoCase(value, "chunked");
        return ++codings_ == 1 && head_->chunked && head_->http11 && lengths_ == 0;
      case http::field::expect:
        return takesExpectation(value);
      case http::field::connection:
        closes_ = closes_ || http::token_list{value}.exists("close");
        return true;
      default:
        return true;
    }
  }

  bool takesExpectation(std::string_view value) {
    if (!head_->http11) return true;
    head_->expectsContinue = equalsNoCase(value, "100-continue");
    if (!head_->expectsContinue) expectation = kExpectationFailed;
    return true;
  }

  static bool isHost(std::string_view value) {
    return value.find_first_of(" \t/?#@\\\"<>") == std::string_view::npos;
  }

  void on_header_impl(Error&) override {}
  void on_response_impl(int, Text, int, Error&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, Error&) override {}
  std::size_t on_body_impl(Text body, Error&) override {
    return body.size();
  }
  void on_chunk_header_impl(std::uint64_t, Text, Error&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, Text body, Error&) override {
    return body.size();
  }
  void on_finish_impl(Error&) override {}

  const Limits& limits_;
  RequestHead* head_;
  int hosts_ = 0;
  int lengths_ = 0;
  int codings_ = 0;
  bool closes_ = false;  // which counts whatever else is wished
};

}  // namespace

// A version that isn't known is the one fault that has a status of its own.
static int statusOf(std::string_view bytes, const Error& error) {
  if (error != http::error::bad_version) return kBadRequest;
  const std::string_view line = bytes.substr(0, bytes.find("\r\n"));
  const std::string_view version = line.substr(line.rfind(' ') + 1);
  auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  const bool wellFormed = std::count(line.begin(), line.end(), ' ') == 2 &&
                          version.size() == 8 && version.starts_with("HTTP/") &&
                          isDigit(version[5]) && version[6] == '.' && isDigit(version[7]);
  return wellFormed ? kVersionNotSupported : kBadRequest;
}

// Splits a target that names a server, too, as clients of proxies send it.
static bool splitTarget(RequestHead* head) {
  std::string_view rest = head->target;
  head->path = rest;
  if (rest.starts_with('/')) return true;
  if (rest == "*") return head->method == "OPTIONS";
  const std::size_t scheme = rest.find("://");
  if (scheme == std::string_view::npos) return false;
  const std::string_view name = rest.substr(0, scheme);
  if (!equalsNoCase(name, "http") && !equalsNoCase(name, "https")) return false;
  rest.remove_prefix(scheme + 3);
  const std::size_t end = std::min(rest.find_first_of("/?#"), rest.size());
  head->authority = rest.substr(0, end);
  head->path = rest.substr(end);
  return !head->authority.empty() &&
         head->authority.find_first_of("@\\\"<>") == std::string_view::npos;
}

int readHead(std::string_view bytes, const Limits& limits, RequestHead* head) {
  head->fields.clear();
  *head = {.fields = std::move(head->fields)};  // whose memory serves the next head
  HeadParser parser(limits, head);
  Error error;
  (void)parser.put({bytes.data(), bytes.size()}, error);
  if (error && parser.status) return parser.status;
  if (error || !parser.is_header_done()) return statusOf(bytes, error);
  if (head->http11 && !parser.hasHost()) return kBadRequest;
  head->keepAlive = parser.keeps();
  if (!parser.knownMethod) return kNotImplemented;
  if (parser.tunnels) return kMethodNotAllowed;
  if (!splitTarget(head)) return kBadRequest;
  return parser.expectation;
}

}  // namespace host
