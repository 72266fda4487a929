#include "embedded/static_file.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "embedded/pages.h"
#include "http/byte_range.h"
#include "http/content_type.h"
#include "http/response.h"
#include "layer/parameters.h"
#include "layer/status.h"
#include "layer/text.h"
#include "layer/uri.h"

namespace host {

// A file of this size leaves in one write with its head; beyond, the kernel moves
// it.
constexpr std::int64_t kSmallFile = 32 << 10;

constexpr char kTimeFormat[] = "%a, %d %b %Y %H:%M:%S GMT";

namespace {

struct File {
  int number;
  std::int64_t size;
  time_t modified;
  std::string tag;
};

struct Static {
  HttpExchange* exchange;
  HostRequest* request;
  const Config& config;
  std::string path;
  std::string root;  // that the path must not leave; empty: unknown
};

// Closes the file that a request has opened.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path)
      // Opening a FIFO must not wait for a writer.
      : number_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile() {
    if (number_ >= 0) (void)close(number_);
  }
  [[nodiscard]] int number() const {
    return number_;
  }

 private:
  int number_;
};

}  // namespace

static const char* headerOf(const Static& job, const char* name) {
  return findValue(job.request->headers, name);
}

static bool isNamed(const char* tags, const File& file) {
  return std::strstr(tags, file.tag.c_str()) || std::strcmp(tags, "*") == 0;
}

// Whether the file is another than the client wants it to be.
static bool failsCondition(const Static& job, const File& file) {
  const char* tags = headerOf(job, "if-match");
  if (tags) return !isNamed(tags, file);
  const char* since = headerOf(job, "if-unmodified-since");
  tm time{};
  if (!since || !strptime(since, kTimeFormat, &time)) return false;
  return file.modified > timegm(&time);
}

static bool clientHasIt(const Static& job, const File& file) {
  const char* tags = headerOf(job, "if-none-match");
  if (tags) return isNamed(tags, file);
  const char* since = headerOf(job, "if-modified-since");
  tm time{};
  if (!since || !strptime(since, kTimeFormat, &time)) return false;
  return file.modified <= timegm(&time);
}

// A part is of use only to a client that has the rest of the same file.
static ByteRange wantedRange(const Static& job, const File& file) {
  const char* method = findValue(job.request->reqpb, "method");
  const char* range = headerOf(job, "range");
  const char* known = headerOf(job, "if-range");
  const bool current = !known || known == file.tag || known == httpTime(file.modified);
  if (!range || !current || std::strcmp(method, "GET") != 0) {
    return {RangeKind::whole, 0, file.size};
  }
  return readRange(range, file.size);
}

// The length has gone out: a file that has grown since is cut there, and one that
// has shrunk ends the connection.
static bool copySmall(const Static& job, int file, const ByteRange& range) {
  auto* block = static_cast<char*>(requestMemory(range.count));
  if (!block) return range.count == 0;
  const ssize_t count =
      pread(file, block, static_cast<std::size_t>(range.count), range.first);
  if (count != range.count) return false;
  return job.exchange->writeBody(block, static_cast<int>(count)) == count;
}

static bool sendRange(const Static& job, const File& file, const ByteRange& range) {
  setHeader(job.request, "content-length", std::to_string(range.count));
  const bool part = range.kind == RangeKind::part;
  if (part) setHeader(job.request, "content-range", rangeText(range, file.size));
  if (!startPage(job.request, part ? kPartialContent : kOk, nullptr)) return true;
  if (range.count <= kSmallFile) return copySmall(job, file.number, range);
  return job.exchange->writeFile(file.number, range.first, range.count);
}

static bool sendOpenFile(const Static& job, const File& file) {
  if (failsCondition(job, file)) {
    sendErrorPage(job.request, kPreconditionFailed, nullptr);
    return true;
  }
  setHeader(job.request, "etag", file.tag);
  setHeader(job.request, "last-modified", httpTime(file.modified));
  if (clientHasIt(job, file)) return !startPage(job.request, kNotModified, nullptr);
  setHeader(job.request, "accept-ranges", "bytes");
  const ByteRange range = wantedRange(job, file);
  if (range.kind == RangeKind::outside) {
    setHeader(job.request, "content-range", rangeText(range, file.size));
    sendErrorPage(job.request, kRangeNotSatisfiable, nullptr);
    return true;
  }
  const char* type = findValue(job.request->srvhdrs, "content-type");
  if (!type) setHeader(job.request, "content-type", contentTypeOf(job.path));
  return sendRange(job, file, range);
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

static bool liesIn(std::string_view path, std::string_view folder) {
  while (folder.ends_with('/')) folder.remove_suffix(1);
  return path.starts_with(folder) &&
         (path.size() == folder.size() || path[folder.size()] == '/');
}

// Whether what was opened lies in the root, whatever links lead to it. The root
// itself is looked up only where it may be a link, too.
static bool staysInRoot(int file, const std::string& root) {
  char where[PATH_MAX];
  const std::string link = "/proc/self/fd/" + std::to_string(file);
  const ssize_t size = readlink(link.c_str(), where, sizeof(where));
  if (size <= 0) return false;
  const std::string_view path(where, static_cast<std::size_t>(size));
  if (liesIn(path, root)) return true;
  char real[PATH_MAX];
  return realpath(root.c_str(), real) && liesIn(path, real);
}

static File describe(int number, const struct stat& status) {
  // With nanoseconds, since a file may change twice in a second.
  char tag[64];
  (void)std::snprintf(
      tag, sizeof(tag), "\"%llx-%llx\"",
      static_cast<unsigned long long>(status.st_mtim.tv_sec) * 1000000000 +
          static_cast<unsigned long long>(status.st_mtim.tv_nsec),
      static_cast<unsigned long long>(status.st_size));
  return {number, status.st_size, status.st_mtim.tv_sec, tag};
}

static bool sendFound(const Static& job, int number) {
  struct stat status {};
  const bool known = fstat(number, &status) == 0;
  if (known && S_ISDIR(status.st_mode) && job.path.back() != '/') {
    redirectToFolder(job.request);
    return true;
  }
  const bool inside =
      job.config.symlinksLeaveRoot || job.root.empty() || staysInRoot(number, job.root);
  if (!known || !S_ISREG(status.st_mode) || !inside) {
    sendErrorPage(job.request, inside ? kNotFound : kForbidden, nullptr);
    return true;
  }
  return sendOpenFile(job, describe(number, status));
}

// Files that begin with a dot are the tools' and the system's, not the site's; what
// RFC 8615 keeps for everybody is the exception.
static bool isHidden(std::string_view uri) {
  for (std::size_t at; (at = uri.find("/.")) != std::string_view::npos;) {
    uri.remove_prefix(at + 1);
    if (uri.substr(0, uri.find('/')) != ".well-known") return true;
  }
  return false;
}

static bool isReadMethod(const HostRequest* request) {
  const char* method = findValue(request->reqpb, "method");
  return method && (std::strcmp(method, "GET") == 0 || std::strcmp(method, "HEAD") == 0);
}

// Where the file is, by the plug-in's word or by the document root.
static Static findFile(HttpExchange* exchange, HostRequest* request,
                       const Config& config) {
  const char* path = findValue(request->vars, "path");
  const char* base = findValue(request->vars, "ntrans-base");
  const char* uri = findValue(request->reqpb, "uri");
  Static job{exchange, request, config, path ? path : "", base ? base : ""};
  if (path || config.documentRoot.empty() || !uri) return job;
  job.path = config.documentRoot + uri;
  job.root = config.documentRoot;
  return job;
}

// The URI is judged here and not before the stages: a plug-in may serve what
// looks evil, but no file is opened for it.
bool sendStaticFile(HttpExchange* exchange, HostRequest* request, const Config& config) {
  const Static job = findFile(exchange, request, config);
  const char* uri = findValue(request->reqpb, "uri");
  if (job.path.empty() || !uri || uriIsEvil(uri) || isHidden(uri)) {
    sendErrorPage(request, kNotFound, nullptr);
    return true;
  }
  const OpenFile file(job.path);
  if (file.number() < 0) {
    sendErrorPage(request, errno == EACCES ? kForbidden : kNotFound, nullptr);
    return true;
  }
  if (isReadMethod(request)) return sendFound(job, file.number());
  setHeader(request, "allow", "GET, HEAD");
  sendErrorPage(request, kMethodNotAllowed, nullptr);
  return true;
}

}  // namespace host
