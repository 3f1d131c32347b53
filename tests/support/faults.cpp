// SPDX-License-Identifier: LGPL-3.0-or-later
// A library to preload into a real program: calls that fail, stop or kill it at a chosen moment,
// a trace of what it changes in folders, and a clock that runs faster. tests/tools/operator.hpp
// sets its rules.

#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace {

struct Rule {
  char call[32];
  char path[64];  // part of it; empty: any
  int action;     // an errno, or one of the two below
  int from, times;
  int seen;
};
constexpr int kStop = -1, kKill = -2;
constexpr int kMostRules = 16;
Rule* rules = nullptr;  // shared with children: a call is counted once, whoever makes it
int rule_count = -1;

template <typename Function>
Function real(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void read_rules() {
  rule_count = 0;
  void* shared = mmap(nullptr, kMostRules * sizeof(Rule), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) abort();
  rules = static_cast<Rule*>(shared);
  const char* text = getenv("TAVRIX_FAULTS");
  while (text != nullptr && *text != '\0' && rule_count < kMostRules) {
    Rule& rule = rules[rule_count];
    char action[16] = "";
    char name[96] = "";
    rule = {};
    rule.times = 1;
    if (sscanf(text, "%95[^:]:%15[^:]:%d:%d", name, action, &rule.from, &rule.times) >= 3) {
      char* at = strchr(name, '@');
      if (at != nullptr) {
        *at = '\0';
        snprintf(rule.path, sizeof rule.path, "%.63s", at + 1);
      }
      snprintf(rule.call, sizeof rule.call, "%.31s", name);
      rule.action = strcmp(action, "stop") == 0   ? kStop
                    : strcmp(action, "kill") == 0 ? kKill
                                                  : atoi(action);
      ++rule_count;
    }
    text = strchr(text, ',');
    if (text != nullptr) ++text;
  }
}

// The file that a program's environment names holds the calls that its rules reached, a line each.
void tell(const char* call) {
  const char* file = getenv("TAVRIX_FAULTS_REACHED");
  if (file == nullptr) return;
  const int fd =
      real<int (*)(const char*, int, ...)>("open")(file, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (fd == -1 || dprintf(fd, "%s\n", call) < 0) abort();
  close(fd);
}

// true: the call fails with errno.
bool fails(const char* call, const char* path = "") {
  if (rule_count < 0) read_rules();
  for (int i = 0; i < rule_count; ++i) {
    Rule& rule = rules[i];
    if (strcmp(rule.call, call) != 0 || strstr(path, rule.path) == nullptr) continue;
    ++rule.seen;
    if (rule.seen < rule.from || rule.seen >= rule.from + rule.times) continue;
    tell(call);
    if (rule.action == kStop) {
      raise(SIGSTOP);
    } else if (rule.action == kKill) {
      raise(SIGKILL);
    } else {
      errno = rule.action;
      return true;
    }
  }
  return false;
}

// The program's waits are that many times shorter, and its steady clock runs as much faster, so
// that deadlines and the waits for them stay in step. Dates are true. With 0 the steady clock
// stands still, and waits are true.
int clock_haste() {
  static const int times = [] {
    const char* text = getenv("TAVRIX_HASTE");
    return text != nullptr && *text != '\0' ? std::max(atoi(text), 0) : 1;
  }();
  return times;
}
int haste() { return std::max(clock_haste(), 1); }

// The program's dates are that many seconds ahead of the true ones.
time_t seconds_ahead() {
  static const time_t seconds = [] {
    const char* text = getenv("TAVRIX_CLOCK_AHEAD");
    return text != nullptr ? static_cast<time_t>(atoll(text)) : time_t{0};
  }();
  return seconds;
}

constexpr int64_t kNanoseconds = 1'000'000'000;
int64_t nanoseconds(const timespec& time) { return time.tv_sec * kNanoseconds + time.tv_nsec; }
timespec time_of(int64_t nanoseconds) {
  return {static_cast<time_t>(nanoseconds / kNanoseconds),
          static_cast<long>(nanoseconds % kNanoseconds)};
}

// One line for each operation: words with tabs between them, and the bytes in hex.
void trace(const char* what, const char* first, const char* second = "",
           const void* bytes = nullptr, size_t size = 0) {
  const char* file = getenv("TAVRIX_TRACE");
  bool is_watched = false;
  for (const char* folder : {"/etc/tavrix", "/scratch/maps", "/scratch/staging", "/tavrix/.conf"}) {
    is_watched |= strstr(first, folder) != nullptr;
  }
  if (file == nullptr || !is_watched) return;
  const int saved = errno;
  const size_t room = 2 * size + 1024;
  char* line = static_cast<char*>(malloc(room));
  int length = snprintf(line, room, "%s\t%s\t%s\t", what, first, second);
  for (size_t i = 0; i < size; ++i) {
    length += snprintf(line + length, room - static_cast<size_t>(length), "%02x",
                       static_cast<const unsigned char*>(bytes)[i]);
  }
  line[length++] = '\n';
  const int fd =
      real<int (*)(const char*, int, ...)>("open")(file, O_WRONLY | O_CREAT | O_APPEND, 0600);
  if (real<ssize_t (*)(int, const void*, size_t)>("write")(fd, line, static_cast<size_t>(length)) <
      0) {
    abort();
  }
  close(fd);
  free(line);
  errno = saved;
}

struct PathOf {
  char text[4096] = "";
  explicit PathOf(int fd) {
    char link[64];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t length = readlink(link, text, sizeof text - 1);
    if (length > 0) text[length] = '\0';
  }
};

}  // namespace

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  if (fails("open", path)) return -1;
  const bool makes = (flags & O_CREAT) != 0 && access(path, F_OK) != 0;
  const int fd = real<int (*)(const char*, int, ...)>("open")(path, flags, mode);
  if (fd >= 0 && makes) trace("create", path);
  if (fd >= 0 && !makes && (flags & O_TRUNC) != 0) trace("truncate", path);
  return fd;
}

FILE* fopen(const char* path, const char* mode) {
  if (fails("fopen", path)) return nullptr;
  return real<FILE* (*)(const char*, const char*)>("fopen")(path, mode);
}

int stat(const char* path, struct stat* info) {
  if (fails("stat", path)) return -1;
  return real<int (*)(const char*, struct stat*)>("stat")(path, info);
}

ssize_t write(int fd, const void* bytes, size_t size) {
  const PathOf path(fd);
  if (fails("write", path.text)) return -1;
  const ssize_t done = real<ssize_t (*)(int, const void*, size_t)>("write")(fd, bytes, size);
  if (done > 0) trace("write", path.text, "", bytes, static_cast<size_t>(done));
  return done;
}

int link(const char* from, const char* to) {
  if (fails("link", to)) return -1;
  const int result = real<int (*)(const char*, const char*)>("link")(from, to);
  if (result == 0) trace("link", from, to);
  return result;
}

int symlink(const char* target, const char* name) {
  if (fails("symlink", name)) return -1;
  return real<int (*)(const char*, const char*)>("symlink")(target, name);
}

int rename(const char* from, const char* to) {
  if (fails("rename", to)) return -1;
  const int result = real<int (*)(const char*, const char*)>("rename")(from, to);
  if (result == 0) trace("rename", from, to);
  return result;
}

int unlink(const char* path) {
  if (fails("unlink", path)) return -1;
  const int result = real<int (*)(const char*)>("unlink")(path);
  if (result == 0) trace("unlink", path);
  return result;
}

int remove(const char* path) {
  if (fails("unlink", path)) return -1;
  const int result = real<int (*)(const char*)>("remove")(path);
  if (result == 0) trace("unlink", path);
  return result;
}

int mkdir(const char* path, mode_t mode) {
  if (fails("mkdir", path)) return -1;
  return real<int (*)(const char*, mode_t)>("mkdir")(path, mode);
}

int fsync(int fd) {
  const PathOf path(fd);
  if (fails("fsync", path.text)) return -1;
  const int result = real<int (*)(int)>("fsync")(fd);
  if (result == 0) trace("sync", path.text);
  return result;
}

int fdatasync(int fd) {
  const PathOf path(fd);
  if (fails("fdatasync", path.text)) return -1;
  const int result = real<int (*)(int)>("fdatasync")(fd);
  if (result == 0) trace("sync", path.text);
  return result;
}

int mkostemp(char* pattern, int flags) {
  if (fails("mkostemp", pattern)) return -1;
  const int fd = real<int (*)(char*, int)>("mkostemp")(pattern, flags);
  if (fd >= 0) trace("create", pattern);
  return fd;
}

int renameat2(int from_folder, const char* from, int to_folder, const char* to,
              unsigned flags) noexcept {
  if (fails("renameat2", to)) return -1;
  using Call = int (*)(int, const char*, int, const char*, unsigned);
  const int result = real<Call>("renameat2")(from_folder, from, to_folder, to, flags);
  if (result == 0) trace("rename", from, to);
  return result;
}

int lsetxattr(const char* path, const char* name, const void* value, size_t size,
              int flags) noexcept {
  if (fails("lsetxattr", path)) return -1;
  using Call = int (*)(const char*, const char*, const void*, size_t, int);
  return real<Call>("lsetxattr")(path, name, value, size, flags);
}

int lremovexattr(const char* path, const char* name) noexcept {
  if (fails("lremovexattr", path)) return -1;
  return real<int (*)(const char*, const char*)>("lremovexattr")(path, name);
}

int semop(int id, struct sembuf* steps, size_t count) noexcept {
  if (fails("semop")) return -1;
  return real<int (*)(int, struct sembuf*, size_t)>("semop")(id, steps, count);
}

pid_t fork(void) {
  if (fails("fork")) return -1;
  return real<pid_t (*)()>("fork")();
}

int flock(int fd, int operation) {
  if (fails("flock")) return -1;
  return real<int (*)(int, int)>("flock")(fd, operation);
}

int semget(key_t key, int count, int flags) {
  if (fails("semget")) return -1;
  return real<int (*)(key_t, int, int)>("semget")(key, count, flags);
}

int semctl(int id, int number, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  void* fourth = va_arg(arguments, void*);
  va_end(arguments);
  if (fails(command == SETALL ? "setall" : command == GETVAL ? "getval" : "semctl")) return -1;
  return real<int (*)(int, int, int, ...)>("semctl")(id, number, command, fourth);
}

int shmget(key_t key, size_t size, int flags) {
  if (fails((flags & IPC_CREAT) != 0 ? "shmnew" : "shmget")) return -1;
  return real<int (*)(key_t, size_t, int)>("shmget")(key, size, flags);
}

void* shmat(int id, const void* address, int flags) {
  if (fails("shmat")) return reinterpret_cast<void*>(-1);
  return real<void* (*)(int, const void*, int)>("shmat")(id, address, flags);
}

int shmctl(int id, int command, struct shmid_ds* info) {
  if (fails(command == IPC_RMID ? "shmrm" : "shmctl")) return -1;
  return real<int (*)(int, int, struct shmid_ds*)>("shmctl")(id, command, info);
}

int clock_gettime(clockid_t clock, struct timespec* now) {
  const int result = real<int (*)(clockid_t, timespec*)>("clock_gettime")(clock, now);
  if (result == 0 && clock == CLOCK_MONOTONIC) *now = time_of(nanoseconds(*now) * clock_haste());
  if (result == 0 && clock == CLOCK_REALTIME) now->tv_sec += seconds_ahead();
  return result;
}

time_t time(time_t* place) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (place != nullptr) *place = now.tv_sec;
  return now.tv_sec;
}

int nanosleep(const struct timespec* wanted, struct timespec* rest) {
  const timespec scaled = time_of(nanoseconds(*wanted) / haste());
  const int result = real<int (*)(const timespec*, timespec*)>("nanosleep")(&scaled, rest);
  if (result != 0 && rest != nullptr) *rest = time_of(nanoseconds(*rest) * haste());
  return result;
}

int usleep(useconds_t microseconds) {
  const timespec wanted = time_of(int64_t{microseconds} * 1000);
  return nanosleep(&wanted, nullptr);
}

unsigned sleep(unsigned seconds) {
  const timespec wanted{static_cast<time_t>(seconds), 0};
  timespec rest{};
  return nanosleep(&wanted, &rest) == 0 ? 0 : static_cast<unsigned>(rest.tv_sec) + 1;
}

// A wait is at least a millisecond long: 0 would only look.
int poll(struct pollfd* fds, nfds_t count, int timeout) {
  const int scaled = timeout > 0 ? (timeout + haste() - 1) / haste() : timeout;
  return real<int (*)(pollfd*, nfds_t, int)>("poll")(fds, count, scaled);
}

// A sanitizer frees only what its own malloc gave; the barrier keeps the compiler from making the
// two steps a call of this function.
#ifdef __SANITIZE_ADDRESS__
static void* zeroed(size_t count, size_t size) {
  void* block = malloc(count * size);
  asm volatile("" : "+r"(block) : : "memory");
  return block != nullptr ? memset(block, 0, count * size) : nullptr;
}
#else
extern void* __libc_calloc(size_t, size_t);
static void* zeroed(size_t count, size_t size) { return __libc_calloc(count, size); }
#endif

void* calloc(size_t count, size_t size) {
  // Large blocks only, because the start of a program allocates small ones.
  if (count * size > 100 && size >= 100 && rule_count >= 0 && fails("calloc")) return nullptr;
  return zeroed(count, size);
}

}  // extern "C"
