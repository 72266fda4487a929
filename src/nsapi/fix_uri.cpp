#include "nsapi/fix_uri.h"

#include <climits>
#include <cstdio>
#include <cstring>

static bool beginsWith(const char* text, const char* beginning) {
  return std::strncmp(text, beginning, std::strlen(beginning)) == 0;
}

// What lies behind the folder in a path below the base. The folder is the longest
// tail of the URI that the path goes on with: the rest of the URI may be mapped.
static const char* behindFolder(const char* rest, const char* uri) {
  for (const char* tail = uri; tail && *tail; tail = std::strchr(tail + 1, '/')) {
    if (beginsWith(rest, tail)) return rest + std::strlen(tail);
  }
  return rest;
}

// The part of the path that the URI lacks.
static const char* fileInFolder(const char* uri, const char* path, const char* base) {
  if (!path) return "";
  const char* rest = nullptr;
  if (base && beginsWith(path, base))
    rest = behindFolder(path + std::strlen(base), uri);
  else
    rest = std::strrchr(path, '/');
  if (!rest) return "";
  return *rest == '/' ? rest + 1 : rest;
}

static const char* shown(const char* text) {
  return text ? text : "null";
}

char* fix_uri(vesk_request* req, const char* uri, const char* path, const char* base) {
  req->trace(req, "   base  %s", shown(base));
  req->trace(req, "   uri   %s", shown(uri));
  req->trace(req, "   path  %s", shown(path));

  const char* rest = fileInFolder(uri, path, base);
  const std::size_t size = std::strlen(uri) + std::strlen(rest) + 1;
  if (size > INT_MAX) return nullptr;
  auto* fixed = static_cast<char*>(req->malloc(req, static_cast<std::int32_t>(size)));
  if (fixed) (void)std::snprintf(fixed, size, "%s%s", uri, rest);
  return fixed;
}
