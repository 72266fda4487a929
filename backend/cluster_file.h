// The list of the cluster's servers, read from a file again when that changes.
//
// First line: the sequence number. Then one ip:port a line. Empty lines and
// lines that begin with '#' are skipped.
//
// Ownership: a list that was handed out stays whole for as long as it is held,
// whatever the file becomes meanwhile.
// Threads: any; `current` takes the file's own lock and may read the file.
// Errors: one log line for each change that can't be used; the last good list
// stays.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace backend {

struct ClusterList {
  std::int32_t sequence;
  std::vector<std::string> servers;  // ip:port, in the order of the file
};

// Reads the text of a file. Throws std::runtime_error, which names the line.
[[nodiscard]] ClusterList parseClusterList(std::string_view text);

class ClusterFile {
 public:
  // An empty path means no file: `current` is always empty then.
  explicit ClusterFile(std::string path);

  // The list that holds now; null as long as no good one was read.
  [[nodiscard]] std::shared_ptr<const ClusterList> current();

 private:
  // What tells one state of the file from the next.
  struct Stamp {
    timespec modified;
    off_t size;
    ino_t inode;
    int error;  // errno when the file can't be looked at, else 0
  };

  [[nodiscard]] static Stamp stampOf(const std::string& path);
  [[nodiscard]] static bool same(const Stamp& a, const Stamp& b);
  void reload();

  const std::string path_;
  std::mutex lock_;
  // Guarded by lock_.
  std::optional<Stamp> seen_;
  std::shared_ptr<const ClusterList> list_;
};

}  // namespace backend
