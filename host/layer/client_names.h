// Headers of a client whose names mean the web server's own words.
//
// A plug-in of this API looks for what it wants to know in one block after another, and
// the client's headers are one of them: where the web server knows no user, a header
// `Auth-User` would name one. The plug-in can't tell the two apart, so such a header is
// left out before any plug-in sees it, unless the administrator lets it through.
//
// Pure functions: any thread, no lock, no memory.
#pragma once

#include <string_view>

namespace host {

// True for such a name, in any case, with dashes or underscores.
[[nodiscard]] bool isHostsWord(std::string_view header);

}  // namespace host
