#include "nsapi/fix_uri.h"

#include <cstdio>
#include <cstring>

#include "context/memory.h"
#include "context/text.h"

static bool beginsWith(const char* text, const char* beginning) {
  return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

// What lies behind the folder in a path below the base. The folder is the longest
// tail of the URI that the path goes on with: the rest of the URI may be mapped.
static const char* behindFolder(const char* rest, const char* uri) {
  // The longest first: of /b/b/ the shorter tail matches as well, and leaves too much.
  for (const char* tail = uri; tail && *tail; tail = std::strchr(tail + 1, '/')) {
    if (beginsWith(rest, tail)) return rest + std::strlen(tail);
  }
  return rest;
}

// The part of the path that the URI lacks.
static const char* fileInFolder(const char* uri, const char* path, const char* base) {
  // Nothing tells what a host without a path would serve: the folder's URI it is.
  if (!path) return "";
  const char* rest = nullptr;
  if (base && beginsWith(path, base))
    rest = behindFolder(path + std::strlen(base), uri);
  else
    rest = std::strrchr(path, '/');
  if (!rest) return "";
  // The URI brings the slash along.
  return *rest == '/' ? rest + 1 : rest;
}

char* fix_uri(vesk_request* req, const char* uri, const char* path, const char* base) {
  req->trace(req, "   base  %s", orElse(base, "null"));
  req->trace(req, "   uri   %s", orElse(uri, "null"));
  req->trace(req, "   path  %s", orElse(path, "null"));

  const char* rest = fileInFolder(uri, path, base);
  const std::int64_t size = textLength(uri) + textLength(rest) + 1;
  auto* fixed = static_cast<char*>(newBlock(req, size));
  if (fixed)
    (void)std::snprintf(fixed, static_cast<std::size_t>(size), "%s%s", uri, rest);
  return fixed;
}
