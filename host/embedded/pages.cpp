#include "embedded/pages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "embedded/response.h"
#include "layer/parameters.h"
#include "layer/status.h"
#include "layer/text.h"
#include "layer/uri.h"

namespace host {

constexpr std::size_t kFileBlock = 65536;

struct TypeRow {
  std::string_view ending;
  std::string_view type;
};

constexpr TypeRow kTypes[] = {
    {"html", "text/html; charset=utf-8"},
    {"htm", "text/html; charset=utf-8"},
    {"css", "text/css; charset=utf-8"},
    {"js", "text/javascript; charset=utf-8"},
    {"mjs", "text/javascript; charset=utf-8"},
    {"txt", "text/plain; charset=utf-8"},
    {"csv", "text/csv; charset=utf-8"},
    {"json", "application/json"},
    {"xml", "application/xml"},
    {"pdf", "application/pdf"},
    {"zip", "application/zip"},
    {"gz", "application/gzip"},
    {"wasm", "application/wasm"},
    {"svg", "image/svg+xml"},
    {"png", "image/png"},
    {"jpg", "image/jpeg"},
    {"jpeg", "image/jpeg"},
    {"gif", "image/gif"},
    {"webp", "image/webp"},
    {"ico", "image/x-icon"},
    {"woff2", "font/woff2"},
    {"mp4", "video/mp4"},
};

// The content type that the ending of a file name stands for.
static std::string_view contentType(std::string_view path) {
  std::size_t dot = path.find_last_of("./");
  std::string_view ending;
  if (dot != std::string_view::npos && path[dot] == '.') ending = path.substr(dot + 1);
  for (const TypeRow& row : kTypes) {
    if (row.ending == ending) return row.type;
  }
  return "application/octet-stream";
}

static void setHeader(HostRequest* request, const char* name, std::string_view value) {
  freeParameter(findParameter(request->srvhdrs, name, true));
  (void)addParameter(request->srvhdrs, name, std::string(value).c_str());
}

// Starts the response; true when a body may follow.
static bool start(HostRequest* request, int status, const char* reason) {
  request->status_num = static_cast<short>(status);
  request->reason = reason;
  return startResponse(request) == REQ_PROCEED;
}

// Drops the headers that told about the response that isn't sent: its length and
// type would be taken for those of the page.
static void keepErrorHeaders(pblock* headers) {
  constexpr std::string_view kKept[] = {"location", "www-authenticate", "retry-after",
                                        "allow", "set-cookie"};
  for (pb_entry* entry = headers->ht[0]; entry;) {
    const char* name = entry->param->name;
    entry = entry->next;
    bool keep = std::any_of(std::begin(kKept), std::end(kKept),
                            [name](auto kept) { return equalsNoCase(name, kept); });
    if (!keep) freeParameter(findParameter(headers, name, true));
  }
}

void sendErrorPage(HostRequest* request, int status, const char* reason) {
  std::string title =
      std::to_string(status) + " " + htmlOf(reason ? reason : usualReason(status));
  std::string page = "<!DOCTYPE html>\n<html><head><title>" + title +
                     "</title></head>\n<body><h1>" + title + "</h1></body></html>\n";
  keepErrorHeaders(request->srvhdrs);
  setHeader(request, "content-type", "text/html; charset=utf-8");
  setHeader(request, "content-length", std::to_string(page.size()));
  if (!start(request, status, reason)) return;
  (void)request->exchange->writeBody(page.data(), static_cast<int>(page.size()));
}

static bool clientHasIt(HostRequest* request, const std::string& tag,
                        const std::string& modified) {
  const char* tags = findValue(request->headers, "if-none-match");
  if (tags) return std::strstr(tags, tag.c_str()) || std::strcmp(tags, "*") == 0;
  const char* since = findValue(request->headers, "if-modified-since");
  return since && since == modified;
}

// The length has gone out: a file that has grown since is cut there, and one that
// has shrunk ends the connection.
static bool copyFile(HostRequest* request, int file, off_t size) {
  auto* block = static_cast<char*>(requestMemory(kFileBlock));
  if (!block) return false;
  while (size > 0) {
    ssize_t count = read(file, block, kFileBlock);
    if (count <= 0) return false;
    count = static_cast<ssize_t>(std::min<off_t>(count, size));
    if (request->exchange->writeBody(block, static_cast<int>(count)) < 0) return false;
    size -= count;
  }
  return true;
}

static bool sendOpenFile(HostRequest* request, const std::string& path, int file,
                         const struct stat& status) {
  // With nanoseconds, since a file may change twice in a second.
  char tag[64];
  (void)std::snprintf(
      tag, sizeof(tag), "\"%llx-%llx\"",
      static_cast<unsigned long long>(status.st_mtim.tv_sec) * 1000000000 +
          static_cast<unsigned long long>(status.st_mtim.tv_nsec),
      static_cast<unsigned long long>(status.st_size));
  std::string modified = httpTime(status.st_mtim.tv_sec);
  setHeader(request, "etag", tag);
  setHeader(request, "last-modified", modified);
  if (clientHasIt(request, tag, modified)) return !start(request, kNotModified, nullptr);
  const char* type = findValue(request->srvhdrs, "content-type");
  if (!type) setHeader(request, "content-type", contentType(path));
  setHeader(request, "content-length", std::to_string(status.st_size));
  return !start(request, kOk, nullptr) || copyFile(request, file, status.st_size);
}

// A folder without its closing slash: relative links in its index need it. The
// target goes back as the client wrote it, since to decode it and encode it again
// could change it.
static void redirectToFolder(HostRequest* request) {
  const char* line = findValue(request->reqpb, "clf-request");
  std::string_view raw = line ? line : "";
  raw.remove_prefix(std::min(raw.find(' ') + 1, raw.size()));
  raw = raw.substr(0, raw.rfind(' '));
  std::size_t query = raw.find('?');
  std::string location(raw.substr(0, query));
  location += "/";
  if (query != std::string_view::npos) location += raw.substr(query);
  setHeader(request, "location", location);
  sendErrorPage(request, kMovedPermanently, nullptr);
}

static bool sendFound(HostRequest* request, const std::string& path, int file) {
  struct stat status {};
  if (fstat(file, &status) < 0) {
    sendErrorPage(request, kNotFound, nullptr);
    return true;
  }
  if (S_ISDIR(status.st_mode) && path.back() != '/') {
    redirectToFolder(request);
    return true;
  }
  if (!S_ISREG(status.st_mode)) {
    sendErrorPage(request, kNotFound, nullptr);
    return true;
  }
  return sendOpenFile(request, path, file, status);
}

static bool isReadMethod(const HostRequest* request) {
  const char* method = findValue(request->reqpb, "method");
  return method && (std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0);
}

// The URI is judged here and not before the stages: a plug-in may serve what
// looks evil, but no file is opened for it.
bool sendStaticFile(HostRequest* request, const std::string& path) {
  const char* uri = findValue(request->reqpb, "uri");
  if (path.empty() || !uri || uriIsEvil(uri)) {
    sendErrorPage(request, kNotFound, nullptr);
    return true;
  }
  // Opening a FIFO must not wait for a writer.
  int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (file < 0) {
    sendErrorPage(request, errno == EACCES ? kForbidden : kNotFound, nullptr);
    return true;
  }
  bool whole = true;
  if (isReadMethod(request)) {
    whole = sendFound(request, path, file);
  } else {
    setHeader(request, "allow", "GET, HEAD");
    sendErrorPage(request, kMethodNotAllowed, nullptr);
  }
  (void)close(file);
  return whole;
}

}  // namespace host
