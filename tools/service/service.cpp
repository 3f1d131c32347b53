// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/service/service.hpp"

#include <sys/signalfd.h>
#include <unistd.h>
#include <csignal>

namespace tavrix::service {

Fd take_signals() {
  sigset_t wanted;
  sigemptyset(&wanted);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&wanted, number);
  sigprocmask(SIG_BLOCK, &wanted, nullptr);
  return Fd(signalfd(-1, &wanted, SFD_CLOEXEC | SFD_NONBLOCK));
}

int next_signal(const Fd& signals) {
  signalfd_siginfo info{};
  if (read(signals.get(), &info, sizeof info) != sizeof info) return 0;
  return static_cast<int>(info.ssi_signo);
}

}  // namespace tavrix::service
