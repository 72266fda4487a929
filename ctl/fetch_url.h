// Fetches a page of a web server: its status page, as a rule.
//
// http and https; a certificate must be one that the system trusts and name the host.
// Ownership: the caller's. Threads: any. Failure: std::runtime_error with harmless text.
// Units: seconds for the whole of it, but for the look at a host's name.
#pragma once

#include <string>

namespace ctl {

constexpr std::size_t kMostPage = 16 << 20;  // bytes; more is a failure

// Whether a text is meant as a URL and no file.
[[nodiscard]] bool isUrl(const std::string& text);

// The URL with one more parameter in its query, unless it has that already:
// "format=json".
[[nodiscard]] std::string withParameter(const std::string& url,
                                        const std::string& parameter);

// The body of an answer with status 200. Redirects are not followed.
[[nodiscard]] std::string fetchUrl(const std::string& url, double seconds);

}  // namespace ctl
