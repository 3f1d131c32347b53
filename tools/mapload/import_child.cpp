// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/import_child.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "internal/scoped.hpp"
#include "read_perms.h"
#include "tools/files/durable.hpp"

namespace tavrix::mapload {
namespace {

constexpr int kPollMilliseconds = 50;
// Exit codes from here on are the errno of a preparation. Those of a pass are smaller.
constexpr int kNotPrepared = 100;

// The library prints enough traces of an import to fill a terminal.
void silence_output() {
  const Fd null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (null) dup2(null.get(), STDOUT_FILENO);
}

[[noreturn]] void be_the_child(pid_t parent, const std::function<int()>& pass,
                               const Supervision& how) {
  // The import must end with its parent: nobody would publish its image, and the child holds the
  // lock.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(0);
  if (!how.verbose) silence_output();
  if (const int error = how.prepare ? how.prepare() : 0; error != 0) _exit(kNotPrepared + error);
  const int code = pass();
  std::fflush(nullptr);
  _exit(code);
}

PassEnd end_of(int status) {
  PassEnd end;
  if (WIFEXITED(status) && WEXITSTATUS(status) > kNotPrepared) {
    end.kind = PassEnd::Kind::kNotStarted;
    end.error = WEXITSTATUS(status) - kNotPrepared;
  } else if (WIFEXITED(status)) {
    end.code = WEXITSTATUS(status);
  } else if (WTERMSIG(status) == SIGABRT) {
    end.kind = PassEnd::Kind::kAborted;
  } else {
    end.kind = PassEnd::Kind::kKilled;
    end.signal = WTERMSIG(status);
  }
  return end;
}

// Waits for the child, and meanwhile reports progress and asks whether to stop.
PassEnd supervise(pid_t child, const Supervision& how) {
  const Fd handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
  bool stopped = false;
  int status = 0;
  for (;;) {
    const pid_t ended = waitpid(child, &status, WNOHANG);
    if (ended == child) break;
    pollfd ready{handle.get(), POLLIN, 0};  // without a handle this is a pause
    poll(&ready, 1, handle ? kPollMilliseconds : 1);
    if (how.progress) how.progress();
    if (!stopped && how.should_stop && how.should_stop()) {
      stopped = true;
      kill(child, SIGKILL);
    }
  }
  PassEnd end = end_of(status);
  if (stopped && !end.ok()) end.kind = PassEnd::Kind::kStopped;
  return end;
}

PassEnd run(const std::function<int()>& pass, const Supervision& how) {
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) be_the_child(parent, pass, how);
  if (child > 0) return supervise(child, how);
  PassEnd end;
  end.kind = PassEnd::Kind::kNotStarted;
  end.error = errno;
  return end;
}

const char* meaning_of(int code) {
  switch (code) {
    case SHM_MEMBE_ERR_NOMEM:
      return "out of memory";
    case SHM_MEMBE_ERR_BADARGS:
      return "a file cannot be read, or the image has no header";
    case SHM_MEMBE_ERR_NOPERM_SIZE_FILE:
      return "the size file is missing";
    case SHM_MEMBE_ERR_NOPERM_FILE:
      return "the data file is missing";
    case SHM_MEMBE_ERR_NOCACHE_FILE:
      return "there is no local copy";
    case SHM_MEMBE_ERR_PERMMAP_WRERR:
      return "the local copy cannot be written";
    case SHM_MEMBE_ERR_PERMMAP_RDERR:
      return "the local copy cannot be read, or is not an image";
    case SHM_MEMBE_ERR_PERMMAP_BUFFER2SMALL:
      return "the local copy is larger than the table";
    default:
      return "it failed";
  }
}

}  // namespace

bool PassEnd::is_transient() const {
  // The files passed the lint before, so an error code means that a call failed.
  return (kind == Kind::kReturned && code != 0) || kind == Kind::kNotStarted;
}

std::string PassEnd::text() const {
  switch (kind) {
    case Kind::kReturned:
      return fmt::format("{} (code {})", meaning_of(code), code);
    case Kind::kAborted:
      return "the import was aborted by an assertion: the files break the grammar; \"tavrixctl map "
             "lint\" shows where";
    case Kind::kKilled:
      return fmt::format("the import was killed by signal {} ({})", signal, strsignal(signal));
    case Kind::kNotStarted:
      return fmt::format("cannot start a process for the import: {}", std::strerror(error));
    case Kind::kStopped:
      return "the import was stopped";
  }
  return {};
}

PassEnd run_apart(const std::function<int()>& work, const Supervision& how) {
  return run(work, how);
}

SizePass run_size_pass(const char* size_path, const char* data_path, const Supervision& how) {
  SizePass result;
  constexpr std::size_t kSize = sizeof(memsummary_s);
  void* shared = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    result.end = {PassEnd::Kind::kNotStarted, 0, 0, errno};
    return result;
  }
  result.end = run(
      [&] {
        memsummary_s* made = nullptr;
        const int code = get_permbe_shmsize(size_path, data_path, &made);
        if (code == SHM_MEMBE_OK) std::memcpy(shared, made, kSize);
        return code;
      },
      how);
  std::memcpy(&result.summary, shared, kSize);
  munmap(shared, kSize);
  // These are addresses of the child.
  result.summary.sth = {};
  result.summary.perm_map_name_size = result.summary.perm_map_name_data = nullptr;
  return result;
}

PassEnd run_data_pass(const memsummary_s& summary, const Supervision& how) {
  return run(
      [&] {
        memsummary_s own = summary;
        const membe_shm_err err = init_shmbe(&own);
        return err == SHM_MEMBE_OK ? process_permmap(&own) : err;
      },
      how);
}

uint64_t folders_done(const void* image) {
  const auto* offset = reinterpret_cast<const uint32_t*>(
      static_cast<const char*>(image) + offsetof(tavrix_be_header, next_free_fselem));
  return __atomic_load_n(offset, __ATOMIC_RELAXED) / sizeof(fs_elem_s);
}

}  // namespace tavrix::mapload
