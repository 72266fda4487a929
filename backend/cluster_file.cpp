#include "backend/cluster_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

#include "backend/address.h"
#include "backend/log.h"
#include "backend/text.h"

namespace backend {

constexpr off_t kMaxFile{1 << 20};  // far above any real cluster

static std::runtime_error badLine(int number, std::string_view line, const char* wanted) {
  return std::runtime_error("line " + std::to_string(number) + ": '" +
                            std::string(line.substr(0, 80)) + "' is not " + wanted);
}

static std::string_view takeLine(std::string_view& text) {
  const std::size_t end = std::min(text.find('\n'), text.size());
  std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  const std::size_t last = line.find_last_not_of(" \t\r");
  return line.substr(0, last == std::string_view::npos ? 0 : last + 1);
}

// Takes one line that holds something: the sequence number when none has come
// yet, else a server.
static void takeEntry(ClusterList& list, bool& numbered, int number,
                      std::string_view line) {
  if (numbered) {
    if (!isServerName(line)) throw badLine(number, line, "an ip:port");
    list.servers.emplace_back(line);
    return;
  }
  const std::optional<std::int64_t> sequence = wholeNumber(line);
  if (!sequence || *sequence != static_cast<std::int32_t>(*sequence)) {
    throw badLine(number, line, "a sequence number");
  }
  list.sequence = static_cast<std::int32_t>(*sequence);
  numbered = true;
}

ClusterList parseClusterList(std::string_view text) {
  ClusterList list{};
  bool numbered = false;
  for (int number = 1; !text.empty(); ++number) {
    const std::string_view line = takeLine(text);
    if (!line.empty() && line.front() != '#') takeEntry(list, numbered, number, line);
  }
  if (!numbered) throw std::runtime_error("no sequence number");
  if (list.servers.empty()) throw std::runtime_error("no servers");
  return list;
}

ClusterFile::ClusterFile(std::string path) : path_(std::move(path)) {}

ClusterFile::Stamp ClusterFile::stampOf(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return {{}, 0, 0, errno};
  // A pipe would block the reader, and a device has no end.
  const int error = S_ISREG(info.st_mode) ? 0 : EINVAL;
  return {info.st_mtim, info.st_size, info.st_ino, error};
}

// Time alone would miss a second change within the clock's step, size and inode
// alone one that keeps them.
bool ClusterFile::same(const Stamp& a, const Stamp& b) {
  return a.modified.tv_sec == b.modified.tv_sec &&
         a.modified.tv_nsec == b.modified.tv_nsec && a.size == b.size &&
         a.inode == b.inode && a.error == b.error;
}

static std::string readWhole(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("can't be opened");
  std::string text((std::istreambuf_iterator<char>(file)),
                   std::istreambuf_iterator<char>());
  if (file.bad()) throw std::runtime_error("can't be read");
  return text;
}

// REQUIRES: lock_ is held, and seen_ is the file's stamp from before the read.
void ClusterFile::reload() {
  try {
    if (seen_->error != 0) throw std::runtime_error(strerror(seen_->error));
    if (seen_->size > kMaxFile) throw std::runtime_error("too large");
    list_ = std::make_shared<const ClusterList>(parseClusterList(readWhole(path_)));
    logLine({}, "cluster file " + path_ + ": sequence " +
                    std::to_string(list_->sequence) + ", " +
                    std::to_string(list_->servers.size()) + " servers");
  } catch (const std::exception& error) {
    logLine({}, "cluster file " + path_ + ": " + error.what() +
                    (list_ ? "; the last good list stays" : "; no list yet"));
  }
}

std::shared_ptr<const ClusterList> ClusterFile::current() {
  if (path_.empty()) return nullptr;
  const std::lock_guard guard(lock_);
  const Stamp now = stampOf(path_);
  if (!seen_ || !same(*seen_, now)) {
    seen_ = now;
    reload();
  }
  return list_;
}

}  // namespace backend
