#include "maptable/store_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// Where the new file is written, and what it is renamed to.
struct StoreNames {
  char target[PATH_MAX];
  char beside[PATH_MAX];
};

static bool writeAll(int file, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count = write(file, text.data(), text.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

// What a folder, a mount or the length of a name may forbid, while the file itself can be
// written. A full disk isn't among them: to overwrite the file would empty it.
static bool forbidsAnother(int error) {
  return error == EACCES || error == EPERM || error == EROFS || error == ENAMETOOLONG ||
         error == EBUSY || error == EXDEV;
}

// Links are followed, for the rename would put a file in place of the link.
static bool findNames(const char* path, StoreNames* names) {
  if (!realpath(path, names->target)) return false;
  const char* slash = std::strrchr(names->target, '/');
  const int folder = static_cast<int>(slash - names->target);
  const int length = std::snprintf(names->beside, sizeof names->beside, "%.*s/.%s.XXXXXX",
                                   folder, names->target, slash + 1);
  if (length < static_cast<int>(sizeof names->beside)) return true;
  errno = ENAMETOOLONG;
  return false;
}

// Mode and owner are the old file's as far as that is allowed: a process that may give no
// file away goes on with one of its own. The mode comes first, while the file is its own.
static void resemble(int file, const struct stat& old) {
  constexpr mode_t kModeBits = 07777;
  (void)fchmod(file, old.st_mode & kModeBits);
  if (fchown(file, old.st_uid, old.st_gid) == 0) return;
  if (fchown(file, static_cast<uid_t>(-1), old.st_gid) == 0) return;
}

// Renamed before it has reached the disk, the file could be empty after a crash.
static bool fillBeside(int file, const struct stat& old, std::string_view text) {
  resemble(file, old);
  const bool written = writeAll(file, text) && fsync(file) == 0;
  const int cause = errno;
  const bool closed = close(file) == 0;
  if (!written) errno = cause;
  return written && closed;
}

// False with errno; then nothing of the new file is left.
static bool replaceFile(const char* path, const struct stat& old, std::string_view text) {
  StoreNames names;
  if (!findNames(path, &names)) return false;
  const int file = mkostemp(names.beside, O_CLOEXEC);
  if (file < 0) return false;
  if (fillBeside(file, old, text) && rename(names.beside, names.target) == 0) return true;
  const int cause = errno;
  (void)unlink(names.beside);
  errno = cause;
  return false;
}

// `file` is the store's own, open to write.
static StoreWrite writeOpened(int file, const char* path, std::string_view text) {
  struct stat old;
  if (fstat(file, &old) != 0) return StoreWrite::kept;
  if (replaceFile(path, old, text)) return StoreWrite::done;
  if (!forbidsAnother(errno) || ftruncate(file, 0) != 0) return StoreWrite::kept;
  return writeAll(file, text) && fsync(file) == 0 ? StoreWrite::done
                                                  : StoreWrite::inDoubt;
}

// Opened in any case, and without emptying it: that tells whether the file may be
// written, a link's target included, and makes it, with the rights that a new file should
// have.
StoreWrite writeStoreFile(vesk_request* req, const char* path, std::string_view text) {
  std::FILE* file = req->fileOpen(req, path, "a");
  if (!file) return StoreWrite::unopened;
  const StoreWrite written = writeOpened(fileno(file), path, text);
  const int cause = errno;
  (void)std::fclose(file);  // what was written has been synchronised
  errno = cause;
  return written;
}
