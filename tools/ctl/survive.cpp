// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/survive.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "internal/scoped.hpp"
#include "tools/ctl/output.hpp"
#include "tools/status/samba.hpp"

namespace tavrix::ctl {
namespace {

// The exit code of the child cannot tell its own end from the library's, so the child also writes
// the code into a pipe, as its last act.
[[noreturn]] void be_the_child(const Action& work, int pipe_end) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  int code = kFailure;
  try {
    code = work();
  } catch (const std::exception& error) {
    complain("{}", error.what());
  }
  print_error_document(code);
  std::fflush(nullptr);
  const bool is_told = write(pipe_end, &code, sizeof code) == sizeof code;
  _exit(is_told ? code : kFailure);
}

std::string end_of(int status) {
  if (!WIFSIGNALED(status)) return fmt::format("with exit code {}", WEXITSTATUS(status));
  return fmt::format("by signal {} ({})", WTERMSIG(status), strsignal(WTERMSIG(status)));
}

// A process that lacks Samba's comparison of names ends at the first name beyond ASCII.
std::string advice() {
  const std::string library = status::samba_comparison_library();
  void* handle = dlopen(library.c_str(), RTLD_LAZY | RTLD_LOCAL);
  if (handle == nullptr) {
    return fmt::format(
        "Samba's comparison of names is missing, which names beyond ASCII need: {}; \"tavrixctl "
        "doctor\" says how to bring it back",
        library);
  }
  dlclose(handle);
  return "server processes would end in the same way; run the command again with --verbose, and "
         "\"tavrixctl map verify\" and \"tavrixctl doctor\"";
}

}  // namespace

int survive(const std::string& name, const Action& work) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    complain("cannot make a pipe: {}", std::strerror(errno));
    return kFailure;
  }
  const Fd reader(ends[0]);
  Fd writer(ends[1]);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) be_the_child(work, writer.get());
  if (child == -1) {
    complain("cannot start a process: {}", std::strerror(errno));
    return kFailure;
  }
  writer.reset();
  int code = kFailure;
  ssize_t length = -1;
  while ((length = read(reader.get(), &code, sizeof code)) == -1 && errno == EINTR) continue;
  int status = 0;
  while (waitpid(child, &status, 0) == -1 && errno == EINTR) continue;
  if (length == sizeof code) return code;
  complain_as(code::kEnded, "{} ended before an answer, {}: {}", name, end_of(status), advice());
  return kFailure;
}

}  // namespace tavrix::ctl
