// SPDX-License-Identifier: LGPL-3.0-or-later
#include "fuzz/target.hpp"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>
#include <cstdio>
#include <cstdlib>

namespace tavrix::fuzz {

std::jmp_buf assertion;
bool assertion_is_expected = false;

void silence_output() {
  static const bool done = [] {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    return null >= 0 && dup2(null, STDOUT_FILENO) >= 0 && close(null) == 0;
  }();
  static_cast<void>(done);
}

void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

}  // namespace tavrix::fuzz

extern "C" {

// Replaces the C library's function that reports a failed assertion.
[[noreturn]] void __assert_fail(const char* text, const char* file, unsigned int line,
                                const char* function) noexcept {
  if (tavrix::fuzz::assertion_is_expected) std::longjmp(tavrix::fuzz::assertion, 1);
  std::fprintf(stderr, "%s:%u: %s: Assertion `%s' failed.\n", file, line, function, text);
  std::abort();
}

void syslog(int /*priority*/, const char* /*format*/, ...) {}
}
