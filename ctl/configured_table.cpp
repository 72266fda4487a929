#include "ctl/configured_table.h"

#include <algorithm>
#include <new>

#include "context/guards.h"
#include "context/memory.h"
#include "layer/text.h"
#include "layer/uri.h"
#include "maptable/server_store.h"
#include "maptable/table_lifecycle.h"
#include "maptable/table_startup.h"

namespace ctl {

Target readTarget(const std::string& url) {
  Target target;
  std::string_view rest = url;
  const std::size_t scheme = rest.find("://");
  if (scheme != std::string_view::npos && scheme < rest.find('/')) {
    rest.remove_prefix(scheme + 3);
    target.host = rest.substr(0, rest.find_first_of("/?#"));
    rest.remove_prefix(target.host.size());
    if (rest.empty() || rest.front() != '/') rest = "/";
  }
  if (rest.empty() || rest.front() != '/') {
    target.failure =
        "\"" + url + "\" is neither a URL with http:// nor a path with / first";
    return target;
  }
  if (!host::decodeUri(rest.substr(0, rest.find_first_of("?#")), &target.uri))
    target.failure = "\"" + url + "\" has a '%' without two digits, or a NUL";
  return target;
}

static std::uint32_t retryIntervalOf(const Configuration& configuration) {
  const std::int64_t seconds = host::numberOf(configuration.option("proxyretryinterval"));
  return seconds > 0 && seconds <= INT32_MAX ? static_cast<std::uint32_t>(seconds) : 0;
}

// What is asked for is asked with all guards, so that no server holds the tool up; the
// configured ones count for what is explained.
ConfiguredTable::ConfiguredTable(const Configuration& configuration, const Limits& limits,
                                 bool verbose)
    : request(limits, verbose),
      table(mappingsTableNew(request.record(), nullptr,
                             configuration.option("bootstrap").c_str(),
                             retryIntervalOf(configuration))),
      guards(readGuards(configuration.option("guards")).mask) {
  if (!table) throw std::bad_alloc();
  const bool ignores =
      host::equalsNoCase(configuration.option("ignoresuffixmap"), "true");
  (void)table->ignoreSuffixMap(table, request.record(), ignores ? 1 : 0);
  fill(configuration);
}

ConfiguredTable::~ConfiguredTable() {
  mappingsTableDelete(table, request.record());
}

// The two sources that a start of the connector asks, in its order. The table is told of
// the store only while that is read: it would be written with the list.
void ConfiguredTable::fill(const Configuration& configuration) {
  vesk_request* req = request.record();
  if (retrieveServersFromBootstrapServer(table, req, 1) > 0) from = "bootstrap";
  const std::string store = configuration.option("serverstore");
  if (!from.empty() || store.empty()) return;
  req->lastError = 0;
  table->serverStore = req->permStrdup(req, store.c_str());
  propertyTable* servers = table->serverStore ? readStoredServers(table, req) : nullptr;
  if (table->serverStore) req->permFree(req, table->serverStore);
  table->serverStore = nullptr;
  if (servers && addRemoteJvms(table, req, servers, 1) > 0) from = "store";
}

std::vector<std::string> ConfiguredTable::absent() const {
  std::vector<std::string> names;
  names.reserve(static_cast<std::size_t>(table->awaitedCount));
  for (std::int32_t i = 0; i < table->awaitedCount; ++i)
    names.emplace_back(table->awaited[i].name);
  return names;
}

// A result is made by the request's allocator, which is the heap's.
ConfiguredTable::Answer ConfiguredTable::explain(const std::string& method,
                                                 const Target& target,
                                                 const std::string& cookie) {
  Headers headers;
  if (!target.host.empty()) headers.emplace_back("host", target.host);
  if (!cookie.empty()) headers.emplace_back("cookie", cookie);
  request.setTarget(method, "/", headers);
  vesk_request* req = request.record();
  req->uri = target.uri.c_str();
  const std::uint32_t asking = req->guards;
  req->guards = guards;
  Explanation* explained = explainRequest(table, req);
  req->guards = asking;
  req->uri = nullptr;
  if (!explained) throw std::bad_alloc();
  return {explained, [](Explanation* one) { doFree(nullptr, one); }};
}

std::vector<std::string> addressesOf(const Configuration& configuration,
                                     const ConfiguredTable& table) {
  std::vector<std::string> names;
  const auto add = [&names](const std::string& name) {
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  };
  const std::string bootstrap = configuration.option("bootstrap");
  if (!bootstrap.empty()) add(bootstrap);
  const proxyList& known = table.records().masterList;
  for (std::int32_t i = 0; i < known.count; ++i) add(known.proxies[i]->name);
  for (const std::string& name : table.absent()) add(name);
  return names;
}

}  // namespace ctl
