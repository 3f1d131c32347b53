// tavrix-sweeper: owns the staging buffer and flushes it on a period.

#include <fmt/format.h>
#include <poll.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tavrix_vfs_utils.h"
#include "tools/notes/open_notes.h"
#include "tools/service/service.hpp"
#include "tools/sweeper/staging_owner.hpp"

namespace tavrix::sweeper {

using service::say;
using service::Tone;

namespace {

constexpr int kDefaultPeriod = 5;  // seconds, when the settings have none

int period() {
  const int seconds = global_params[PARAM_FLUSH_PERIOD].value.intval;
  return seconds > 0 ? seconds : kDefaultPeriod;
}

bool is_disabled() { return global_params[PARAM_DISABLE_SWEEPER_FLUSH].value.intval != 0; }

// A flush that cannot keep its records does not return: the process ends by the library's rules,
// and the service manager starts it anew.
void flush(const char* why) {
  const uint32_t records = staged_records();
  if (flush_staging_buffer(FB_CTX_SWPR) == 1 && records > 0)
    say(Tone::kInfo, fmt::format("{}: {} records flushed", why, records));
}

// The events of server processes that were killed with changed files open.
void settle_notes() {
  const int settled = settle_open_notes();
  if (settled < 0) say(Tone::kError, fmt::format("{}: {}", OPEN_NOTES_FOLDER, strerror(errno)));
  if (settled > 0)
    say(Tone::kWarning, fmt::format("{} changed files of ended processes recorded", settled));
}

// The number of a signal that came within the seconds, or 0.
int wait_for_signal(const Fd& fd, int seconds) {
  pollfd ready{fd.get(), POLLIN, 0};
  return poll(&ready, 1, seconds * 1000) == 1 ? service::next_signal(fd) : 0;
}

bool take_settings() {
  if (read_tavrix_config() == 0 && global_params[PARAM_STAGING_BUFFER_SIZE].value.intval > 0)
    return true;
  say(Tone::kError, "there are no settings; \"tavrixctl config load FILE\" makes them");
  return false;
}

int run(const Fd& fd) {
  say(Tone::kInfo, fmt::format("flushing every {} seconds", period()));
  sd_notify(0, "READY=1\nSTATUS=flushing");
  for (;;) {
    switch (wait_for_signal(fd, period())) {
      case 0:
        settle_notes();
        if (!is_disabled()) flush("period");
        break;
      case SIGHUP:
        sd_notify(0, "RELOADING=1");
        if (take_settings() && !own_staging_buffer()) return 1;
        say(Tone::kInfo, fmt::format("settings read: every {} seconds{}", period(),
                                     is_disabled() ? ", flushing is disabled" : ""));
        sd_notify(0, "READY=1");
        break;
      default:
        sd_notify(0, "STOPPING=1");
        flush("last");
        say(Tone::kInfo, "stopped");
        return 0;
    }
  }
}

}  // namespace
}  // namespace tavrix::sweeper

int main(int argc, char** argv) {
  using namespace tavrix::sweeper;
  CLI::App app{"Owns the staging buffer of events and flushes it to dump files on a period."};
  bool once = false;
  bool foreground = false;
  app.add_flag("--once", once, "make the buffer if there is none, flush it, and end");
  app.add_flag("--foreground", foreground, "stay on the terminal, as a service manager wants it");
  app.footer(
      "SIGHUP reads the settings anew; SIGTERM flushes once more and ends.\n"
      "Settings: \"SWEEPER:flush period\", \"disable sweeper flush\", \"staging dir\", \"staging "
      "buffer "
      "size\".");
  CLI11_PARSE(app, argc, argv);
  if (geteuid() != 0) {
    say(tavrix::service::Tone::kError, "run this as root");
    return 2;
  }
  openlog("tavrix-sweeper", LOG_PID, LOG_DAEMON);
  if (!take_settings() || !own_staging_buffer()) return 2;
  settle_notes();
  if (once) {
    flush("once");
    return 0;
  }
  if (!foreground && daemon(0, 1) != 0) return 2;
  const tavrix::Fd fd = tavrix::service::take_signals();
  return fd ? run(fd) : 2;
}
