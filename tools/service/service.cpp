#include "tools/service/service.hpp"

#include <sys/signalfd.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <csignal>
#include <cstdio>
#include <cstdlib>

namespace tavrix::service {

void say(Tone tone, const std::string& text) {
  const bool journal = std::getenv("JOURNAL_STREAM") != nullptr;
  const char* level = tone == Tone::kInfo ? SD_INFO : SD_ERR;
  std::fprintf(stderr, "%s%s\n", journal ? level : "", text.c_str());
}

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
