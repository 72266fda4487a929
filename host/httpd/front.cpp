#include "httpd/front.h"

#include <apr_lib.h>
#include <apr_network_io.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "layer/text.h"

namespace host {

constexpr std::string_view kFrom = "from";
constexpr std::string_view kHttps = "https";
constexpr std::string_view kParameters[] = {kFrom,     kHttps,        "cipher", "keysize",
                                            "session", "certificate", "verdict"};

struct Front {
  std::vector<apr_ipsubnet_t*> networks;
  Directive line;
};

static apr_status_t deleteFront(void* front) {
  delete static_cast<Front*>(front);
  return APR_SUCCESS;
}

static std::string addNetwork(apr_pool_t* pool, std::string_view word, Front* front) {
  const std::size_t slash = word.find('/');
  const std::string address(word.substr(0, slash));
  const std::string bits(slash == std::string_view::npos ? "" : word.substr(slash + 1));
  apr_ipsubnet_t* network = nullptr;
  if (apr_ipsubnet_create(&network, address.c_str(),
                          bits.empty() ? nullptr : bits.c_str(), pool) != APR_SUCCESS) {
    return "\"" + std::string(word) + "\" is no address and no network";
  }
  front->networks.push_back(network);
  return {};
}

static std::string checkParameter(const std::string& name, const std::string& value) {
  const auto* known = std::find(std::begin(kParameters), std::end(kParameters), name);
  if (known == std::end(kParameters)) return "unknown parameter \"" + name + "\"";
  const bool header = name != kFrom;
  const bool fits = !value.empty() && !*ap_scan_http_token(value.c_str());
  return header && !fits ? "\"" + value + "\" is no name of a header" : "";
}

static std::string fillFront(apr_pool_t* pool, Front* front) {
  for (const auto& [name, value] : front->line.parameters) {
    std::string reason = checkParameter(name, value);
    if (!reason.empty()) return reason;
  }
  const std::string* from = front->line.find(kFrom);
  if (!from || !front->line.find(kHttps)) return "\"from\" and \"https\" are needed";
  std::string_view list = *from;
  std::string reason;
  while (reason.empty()) {
    const std::string_view word = takeWord(&list, " \t,");
    if (word.empty()) break;
    reason = addNetwork(pool, word, front);
  }
  return reason;
}

std::string readFront(apr_pool_t* pool, Directive line, const Front** front) {
  auto* fresh = new Front{{}, std::move(line)};
  apr_pool_cleanup_register(pool, fresh, deleteFront, apr_pool_cleanup_null);
  *front = fresh;
  return fillFront(pool, fresh);
}

bool cameThrough(const Front* front, const request_rec* r) {
  if (!front) return false;
  apr_sockaddr_t* peer = r->connection->client_addr;
  return std::any_of(
      front->networks.begin(), front->networks.end(),
      [peer](apr_ipsubnet_t* network) { return apr_ipsubnet_test(network, peer) != 0; });
}

const char* toldBy(const Front* front, const request_rec* r, std::string_view parameter) {
  const std::string* header = front->line.find(parameter);
  return header ? apr_table_get(r->headers_in, header->c_str()) : nullptr;
}

// Servers that look for a variable take dashes and underscores for the same.
static bool meansSame(std::string_view one, std::string_view other) {
  const auto plain = [](char c) { return c == '_' ? '-' : apr_tolower(c); };
  return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                    [plain](char a, char b) { return plain(a) == plain(b); });
}

bool isFronts(const Front* front, std::string_view header) {
  const auto& told = front->line.parameters;
  return std::any_of(told.begin(), told.end(), [header](const auto& one) {
    return one.first != kFrom && meansSame(one.second, header);
  });
}

}  // namespace host
