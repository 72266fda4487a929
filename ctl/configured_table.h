// A table as the connector would have it after a start with these settings.
//
// It is filled by the connector's own code: from the bootstrap server, else from the
// store, which is only read. Filling asks each server for its properties and mappings.
//
// Ownership: the object owns the table and the request that it is asked by; the
// configuration is only read while it is made. Threads: one at a time. Failure: a table
// without mappings, with the reasons in words.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ctl/configuration.h"
#include "ctl/tool_request.h"
#include "maptable/vesk_maptable_impl.h"
#include "status/explain.h"

namespace ctl {

// A URL as a web server takes it.
struct Target {
  std::string host;     // header, port included; empty: none
  std::string uri;      // decoded, without the query
  std::string failure;  // empty: it can be read
};

// "http://host:port/path?query", or a path alone.
[[nodiscard]] Target readTarget(const std::string& url);

class ConfiguredTable {
 public:
  // Blocks on the servers, on each for the limits.
  ConfiguredTable(const Configuration& configuration, const Limits& limits, bool verbose);
  ~ConfiguredTable();
  ConfiguredTable(const ConfiguredTable&) = delete;
  ConfiguredTable& operator=(const ConfiguredTable&) = delete;

  // What brought the servers: "bootstrap", "store", or nothing.
  [[nodiscard]] const std::string& source() const {
    return from;
  }
  [[nodiscard]] const mappingsTable& records() const {
    return *table;
  }
  // Servers that the list names and that the table lacks.
  [[nodiscard]] std::vector<std::string> absent() const;

  using Answer = std::unique_ptr<Explanation, void (*)(Explanation*)>;
  // Its patterns belong to the table. Throws without memory.
  [[nodiscard]] Answer explain(const std::string& method, const Target& target,
                               const std::string& cookie);

 private:
  void fill(const Configuration& configuration);

  ToolRequest request;
  mappingsTable* table;
  std::string from{};
  std::uint32_t guards;  // as configured
};

// The servers that a web server would know: the bootstrap server first, whose list
// counts; or those of the store.
[[nodiscard]] std::vector<std::string> addressesOf(const Configuration& configuration,
                                                   const ConfiguredTable& table);

}  // namespace ctl
