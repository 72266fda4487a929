// SHA-256 of a run of bytes that comes in pieces.
//
// Ownership: the record owns the library's context. Threads: one at a time.
// Errors: std::runtime_error when the library refuses.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

namespace backend {

class Sha256 {
 public:
  Sha256();

  void update(std::string_view bytes);

  // The digest as 64 lower-case hexadecimal digits. Ends the run.
  [[nodiscard]] std::string hex();

 private:
  struct Release {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Release> context_;
};

}  // namespace backend
