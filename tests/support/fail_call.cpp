// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/fail_call.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <stdexcept>
#include <utility>

namespace tavrix::test {
namespace {

struct Probe {
  int calls = 0;
  int calls_since_plan = 0;
  int fail_from = 0;  // 0: no failure planned
  int fail_to = 0;
  int error = 0;
  int before_at = 0;
  std::function<void()> before;
  long at_most = -1;
};

// Never destroyed: the library gives back memory when everything else of the process is gone.
std::map<std::string, Probe>& probes() {
  static auto& known = *new std::map<std::string, Probe>;
  return known;
}

Probe& probe(const std::string& name) {
  const auto found = probes().find(name);
  if (found == probes().end()) throw std::logic_error(name + " is not wrapped");
  return found->second;
}

std::atomic<long> blocks{0};
std::atomic<long> allocated{0};

template <typename Pointer>
Pointer count_block(Pointer block) {
  if (block != nullptr) {
    ++blocks;
    ++allocated;
  }
  return block;
}

bool skips_sleeps = false;
long shown_second = -1;  // -1: the clock's own

std::vector<unsigned>& sleeps() {
  static auto& skipped = *new std::vector<unsigned>;
  return skipped;
}

// 0, or the errno with which this call has to fail.
int intercept(Probe* planned) {
  if (planned == nullptr) return 0;  // the program is still starting
  Probe& probe = *planned;
  ++probe.calls;
  ++probe.calls_since_plan;
  if (probe.before && probe.calls_since_plan == probe.before_at) std::exchange(probe.before, {})();
  const bool fails =
      probe.calls_since_plan >= probe.fail_from && probe.calls_since_plan < probe.fail_to;
  return fails ? probe.error : 0;
}

}  // namespace

void fail_call(const std::string& name, int error, int nth, int times) {
  Probe& plan = probe(name);
  plan.calls_since_plan = 0;
  plan.error = error;
  plan.fail_from = nth;
  plan.fail_to = nth + times;
}

void run_before(const std::string& name, std::function<void()> action, int nth) {
  Probe& plan = probe(name);
  plan.calls_since_plan = 0;
  plan.before_at = nth;
  plan.before = std::move(action);
}

void cut_short(const std::string& name, long bytes) { probe(name).at_most = bytes; }

void skip_sleeps() {
  skips_sleeps = true;
  sleeps().clear();
}

void show_second(long second) { shown_second = second; }

const std::vector<unsigned>& skipped_sleeps() { return sleeps(); }

int calls(const std::string& name) { return probe(name).calls; }

void reset_calls() {
  for (auto& [name, entry] : probes()) entry.calls = 0;
}

long live_allocations() { return blocks; }
long allocations() { return allocated; }

}  // namespace tavrix::test

using tavrix::test::allocated;
using tavrix::test::blocks;
using tavrix::test::count_block;
using tavrix::test::intercept;
using tavrix::test::Probe;
using tavrix::test::probes;
using tavrix::test::shown_second;
using tavrix::test::skips_sleeps;
using tavrix::test::sleeps;

// The probe of each wrapped call exists from the program's start, so that a misspelt name in a test
// is an error. --wrap=name links the pair of functions.
#define WRAPPED(name)                        \
  namespace {                                \
  Probe* probe_of_##name = &probes()[#name]; \
  }

#define WRAP(result, failure, name, parameters, arguments)          \
  WRAPPED(name)                                                     \
  extern "C" result __real_##name parameters;                       \
  extern "C" result __wrap_##name parameters;                       \
  result __wrap_##name parameters {                                 \
    if (const int error = intercept(probe_of_##name); error != 0) { \
      errno = error;                                                \
      return failure;                                               \
    }                                                               \
    return __real_##name arguments;                                 \
  }

// --- memory: counted even before the probes exist, for the program's start allocates too --------

#define WRAP_ALLOCATION(name, parameters, arguments)                \
  WRAPPED(name)                                                     \
  extern "C" void* __real_##name parameters;                        \
  extern "C" void* __wrap_##name parameters;                        \
  void* __wrap_##name parameters {                                  \
    if (const int error = intercept(probe_of_##name); error != 0) { \
      errno = error;                                                \
      return nullptr;                                               \
    }                                                               \
    return count_block(__real_##name arguments);                    \
  }

WRAP_ALLOCATION(malloc, (size_t size), (size))
WRAP_ALLOCATION(calloc, (size_t count, size_t size), (count, size))

WRAPPED(realloc)
extern "C" void* __real_realloc(void* block, size_t size);
extern "C" void* __wrap_realloc(void* block, size_t size);
void* __wrap_realloc(void* block, size_t size) {
  if (const int error = intercept(probe_of_realloc); error != 0) {
    errno = error;
    return nullptr;
  }
  void* moved = __real_realloc(block, size);
  if (block == nullptr) count_block(moved);
  return moved;
}

WRAPPED(strdup)
extern "C" char* __real_strdup(const char* text);
extern "C" char* __wrap_strdup(const char* text);
char* __wrap_strdup(const char* text) {
  if (const int error = intercept(probe_of_strdup); error != 0) {
    errno = error;
    return nullptr;
  }
  return count_block(__real_strdup(text));
}

WRAPPED(strndup)
extern "C" char* __real_strndup(const char* text, size_t size);
extern "C" char* __wrap_strndup(const char* text, size_t size);
char* __wrap_strndup(const char* text, size_t size) {
  if (const int error = intercept(probe_of_strndup); error != 0) {
    errno = error;
    return nullptr;
  }
  return count_block(__real_strndup(text, size));
}

WRAPPED(vasprintf)
extern "C" int __real_vasprintf(char** text, const char* format, va_list arguments);
extern "C" int __wrap_vasprintf(char** text, const char* format, va_list arguments);
int __wrap_vasprintf(char** text, const char* format, va_list arguments) {
  if (const int error = intercept(probe_of_vasprintf); error != 0) {
    errno = error;
    return -1;
  }
  const int length = __real_vasprintf(text, format, arguments);
  if (length >= 0) count_block(*text);
  return length;
}

WRAPPED(free)
extern "C" void __real_free(void* block);
extern "C" void __wrap_free(void* block);
void __wrap_free(void* block) {
  if (block != nullptr) --blocks;
  __real_free(block);
}

// --- System V ------------------------------------------------------------------------------------

WRAP(key_t, -1, ftok, (const char* path, int id), (path, id))
WRAP(int, -1, shmget, (key_t key, size_t size, int flags), (key, size, flags))
WRAP(void*, reinterpret_cast<void*>(-1), shmat, (int id, const void* address, int flags),
     (id, address, flags))
WRAP(int, -1, shmdt, (const void* address), (address))
WRAP(int, -1, shmctl, (int id, int command, struct shmid_ds* info), (id, command, info))
WRAP(int, -1, semget, (key_t key, int count, int flags), (key, count, flags))
WRAP(int, -1, semop, (int id, struct sembuf* steps, size_t count), (id, steps, count))

WRAPPED(semctl)
extern "C" int __real_semctl(int id, int number, int command, ...);
extern "C" int __wrap_semctl(int id, int number, int command, ...);
int __wrap_semctl(int id, int number, int command, ...) {
  if (const int error = intercept(probe_of_semctl); error != 0) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, command);
  void* fourth = va_arg(arguments, void*);  // a union as wide as a pointer
  va_end(arguments);
  return __real_semctl(id, number, command, fourth);
}

// --- pages ---------------------------------------------------------------------------------------

WRAP(void*, MAP_FAILED, mmap,
     (void* address, size_t size, int protection, int flags, int fd, off_t offset),
     (address, size, protection, flags, fd, offset))
WRAP(int, -1, munmap, (void* address, size_t size), (address, size))

// --- identity ------------------------------------------------------------------------------------

WRAP(int, -1, seteuid, (uid_t id), (id))
WRAP(int, -1, setegid, (gid_t id), (id))
WRAP(int, -1, setresuid, (uid_t r, uid_t e, uid_t s), (r, e, s))
WRAP(int, -1, setresgid, (gid_t r, gid_t e, gid_t s), (r, e, s))
WRAP(int, -1, getresuid, (uid_t * r, uid_t* e, uid_t* s), (r, e, s))
WRAP(int, -1, getresgid, (gid_t * r, gid_t* e, gid_t* s), (r, e, s))
WRAP(long, -1, sysconf, (int name), (name))

// --- files ---------------------------------------------------------------------------------------

WRAP(int, -1, stat, (const char* path, struct stat* info), (path, info))
WRAP(int, -1, fstat, (int fd, struct stat* info), (fd, info))
WRAP(int, -1, close, (int fd), (fd))
WRAP(int, -1, rename, (const char* from, const char* to), (from, to))
WRAP(int, -1, link, (const char* from, const char* to), (from, to))
WRAP(int, -1, unlink, (const char* path), (path))
WRAP(ssize_t, -1, readlink, (const char* path, char* target, size_t size), (path, target, size))
WRAP(int, -1, fdatasync, (int fd), (fd))
WRAP(int, -1, fsync, (int fd), (fd))
WRAP(int, -1, mkstemp, (char* name), (name))
WRAP(int, -1, mkostemp, (char* name, int flags), (name, flags))
WRAP(int, -1, fputs, (const char* text, FILE* file), (text, file))
WRAP(ssize_t, -1, getxattr, (const char* path, const char* name, void* value, size_t size),
     (path, name, value, size))
WRAP(int, -1, setxattr,
     (const char* path, const char* name, const void* value, size_t size, int flags),
     (path, name, value, size, flags))
WRAP(FILE*, nullptr, fopen, (const char* path, const char* mode), (path, mode))

WRAPPED(open)
extern "C" int __real_open(const char* path, int flags, ...);
extern "C" int __wrap_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
  if (const int error = intercept(probe_of_open); error != 0) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return __real_open(path, flags, mode);
}

#define WRAP_TRANSFER(name, buffer)                                             \
  WRAPPED(name)                                                                 \
  extern "C" ssize_t __real_##name(int fd, buffer bytes, size_t size);          \
  extern "C" ssize_t __wrap_##name(int fd, buffer bytes, size_t size);          \
  ssize_t __wrap_##name(int fd, buffer bytes, size_t size) {                    \
    if (const int error = intercept(probe_of_##name); error != 0) {             \
      errno = error;                                                            \
      return -1;                                                                \
    }                                                                           \
    const long at_most = std::exchange(probe_of_##name->at_most, -1);           \
    const bool cut = at_most >= 0 && static_cast<size_t>(at_most) < size;       \
    return __real_##name(fd, bytes, cut ? static_cast<size_t>(at_most) : size); \
  }
WRAP_TRANSFER(read, void*)
WRAP_TRANSFER(write, const void*)

// --- time ----------------------------------------------------------------------------------------

// A planned failure looks like a signal that ends the wait at its start.
extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
  const int result = __real_clock_gettime(clock, now);
  if (clock == CLOCK_MONOTONIC_COARSE && shown_second != -1) now->tv_sec = shown_second;
  return result;
}

WRAPPED(sleep)
extern "C" unsigned __real_sleep(unsigned seconds);
extern "C" unsigned __wrap_sleep(unsigned seconds);
unsigned __wrap_sleep(unsigned seconds) {
  if (intercept(probe_of_sleep) != 0) return seconds;
  if (!skips_sleeps) return __real_sleep(seconds);
  sleeps().push_back(seconds);
  return 0;
}

// --- the loader of libraries ---------------------------------------------------------------------

WRAP(void*, nullptr, dlopen, (const char* path, int flags), (path, flags))
WRAP(void*, nullptr, dlsym, (void* library, const char* name), (library, name))
