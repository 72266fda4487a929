#include "system_calls.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

static thread_local std::int64_t failing;
static thread_local std::int64_t made;
static thread_local int cause;

void failCall(std::int64_t number, int error) {
  failing = number;
  cause = error;
  made = 0;
}

std::int64_t callsMade() {
  return made;
}

static bool fails() {
  if (++made != failing) return false;
  errno = cause;
  return true;
}

// What is called with a descriptor and two or three more arguments.
#define WRAPPED(type, name, parameters, arguments) \
  extern "C" type __real_##name parameters;        \
  extern "C" type __wrap_##name parameters {       \
    return fails() ? -1 : __real_##name arguments; \
  }

WRAPPED(int, connect, (int s, const sockaddr* a, socklen_t n), (s, a, n))
WRAPPED(int, poll, (pollfd * p, nfds_t n, int limit), (p, n, limit))
WRAPPED(ssize_t, recv, (int s, void* b, size_t n, int f), (s, b, n, f))
WRAPPED(int, setsockopt, (int s, int l, int o, const void* v, socklen_t n),
        (s, l, o, v, n))
WRAPPED(ssize_t, send, (int s, const void* b, size_t n, int f), (s, b, n, f))
WRAPPED(int, shutdown, (int s, int how), (s, how))
WRAPPED(int, socket, (int f, int t, int p), (f, t, p))
WRAPPED(ssize_t, write, (int f, const void* b, size_t n), (f, b, n))
WRAPPED(int, fsync, (int f), (f))
WRAPPED(int, ftruncate, (int f, off_t n), (f, n))
WRAPPED(int, rename, (const char* from, const char* to), (from, to))

extern "C" int __real_fflush(std::FILE* file);
extern "C" int __wrap_fflush(std::FILE* file) {
  return fails() ? EOF : __real_fflush(file);
}

// A close that fails has closed all the same.
extern "C" int __real_close(int file);
extern "C" int __wrap_close(int file) {
  const bool failed = fails();
  const int error = errno;
  const int result = __real_close(file);
  errno = failed ? error : errno;
  return failed ? -1 : result;
}

extern "C" int __real_fcntl(int file, int command, ...);
extern "C" int __wrap_fcntl(int file, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  const long value = va_arg(arguments, long);
  va_end(arguments);
  return fails() ? -1 : __real_fcntl(file, command, value);
}

extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const int mode = va_arg(arguments, int);
  va_end(arguments);
  return fails() ? -1 : __real_open(path, flags, mode);
}
