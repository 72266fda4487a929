// The body of a request, read block by block.
//
// Ownership: a block is the reader's, and is lent for the time of the call.
// Threads: that of the connection; reading blocks until bytes come.
// Errors: BadRequest for an announced length that is none; as Exchange has them.
// Units: bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "backend/pages/page.h"
#include "backend/wire/protocol.h"

namespace backend {

// How the request announced its body.
struct BodyPlan {
  std::optional<std::int64_t> length;  // Content-Length, when there is one
};

[[nodiscard]] BodyPlan planOf(const PageCall& call);

// Reads the body block by block and hands each to `take`. Memory: one block.
// False when it broke off before its announced length; `total` counts what
// came.
template <typename Take>
[[nodiscard]] bool readBody(const PageCall& call, const BodyPlan& plan,
                            std::int64_t& total, Take take) {
  std::string block;
  while (!plan.length || total < *plan.length) {
    const std::int64_t left = plan.length ? *plan.length - total : kMaxDataFrame;
    const auto wanted =
        static_cast<std::int32_t>(left < kMaxDataFrame ? left : kMaxDataFrame);
    const std::int32_t count = call.exchange.askData(wanted, block);
    // Without a length, a body that ends and one that breaks off look alike.
    if (count <= 0) return !plan.length;
    total += count;
    take(std::string_view(block));
  }
  return true;
}

// What to throw for a body that broke off after that many bytes; logs it, too.
[[nodiscard]] BadRequest brokenBody(const PageCall& call, std::int64_t total);

}  // namespace backend
