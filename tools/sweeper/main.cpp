// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-sweeper: owns the staging buffer and flushes it on a period.

#include <fmt/format.h>
#include <poll.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/cli/command_line.hpp"
#include "tools/cli/help.hpp"
#include "tools/cluster/members.hpp"
#include "tools/notes/open_notes.h"
#include "tools/service/service.hpp"
#include "tools/status/sentences.hpp"
#include "tools/sweeper/connections.hpp"
#include "tools/sweeper/running_mark.hpp"
#include "tools/sweeper/settings.hpp"
#include "tools/sweeper/space.hpp"
#include "tools/sweeper/staging_owner.hpp"
#include "tools/sweeper/stranded_files.hpp"
#include "tools/sweeper/trouble.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::sweeper {

using service::say;
using service::Tone;

namespace {

constexpr int kDefaultPeriod = 5;  // seconds, when the settings have none
// Bytes that may be appended between the look at the space and the flush.
constexpr uint64_t kMostToCome = 1 << 20;

int period() {
  const int seconds = global_params[PARAM_FLUSH_PERIOD].value.intval;
  return seconds > 0 ? seconds : kDefaultPeriod;
}

bool is_disabled() { return global_params[PARAM_DISABLE_SWEEPER_FLUSH].value.intval != 0; }

// "3 records stay in memory"
std::string staying(uint32_t records) {
  return fmt::format("{} {} in memory", text::counted(records, "record"),
                     text::verb(records, "stays", "stay"));
}

// Records the changes of server processes that were killed with changed files open.
void record_changed_files() {
  const int settled = settle_open_notes();
  if (settled < 0) say(Tone::kError, fmt::format("{}: {}", OPEN_NOTES_FOLDER, strerror(errno)));
  if (settled > 0)
    say(Tone::kWarning, fmt::format("recorded {} that ended processes had changed",
                                    text::counted(settled, "file")));
}

// Owns the buffer and does the work of each period.
class Sweeper {
 public:
  explicit Sweeper(const std::string& file) : settings_(file), file_(file) {}

  bool start() {
    if (!settings_.take()) return false;
    std::string problem;
    if (!choose_running_mark(file_, problem)) {
      say(Tone::kError, problem);
      return false;
    }
    look_for_lost_buffer();
    set_running_mark();
    if (!own_staging_buffer(settings_.buffer_bytes(), problem)) {
      say(Tone::kError, problem);
      return false;
    }
    settings_.offer_size();
    settle_stranded_files();
    settle_notes();
    return true;
  }

  void reload() {
    settings_.take();
    tend();
  }

  // One period's work.
  void sweep() {
    tend();
    if (!is_disabled()) flush("period");
    settle_notes();
  }

  // Writes the events of open notes. They go into the buffer that this process empties, so it
  // does this only while the buffer has much room: otherwise it might wait for itself.
  void settle_notes() {
    const Fill fill = buffer_fill();
    if (fill.used < fill.bytes / 4) record_changed_files();
  }

  // Flushes the buffer if there is room on the disk. The library ends the process when a flush
  // cannot keep its records, so a flush that is known to fail is not tried.
  void flush(const char* why) {
    const Fill fill = buffer_fill();
    const std::string folder = global_params[PARAM_STAGING_DIR].value.strval;
    std::string lack;
    if (fill.records > 0) {
      lack = lack_of_room(folder, fill.used + std::min(fill.bytes - fill.used, kMostToCome));
    }
    room_.set(lack.empty() ? "" : fmt::format("waiting: {}; {}", lack, staying(fill.records)));
    if (fill.records == 0 || !lack.empty()) return;
    if (flush_staging_buffer(FB_CTX_SWPR) == 1)
      say(Tone::kInfo, fmt::format("{}: {} flushed", why, text::counted(fill.records, "record")));
  }

  // Flushes for the last time. The mark on the disk stays while events are in memory or a
  // connection may add some. Returns false when records could not be flushed.
  bool finish(const char* why) {
    flush(why);
    const uint32_t records = buffer_fill().records;
    if (records == 0 && live_connections() == 0) clear_running_mark();
    if (room_.text().empty()) return true;
    say(Tone::kError, staying(records));
    return false;
  }

  void notify(const char* state) const {
    std::string status = status::flushing_text(is_disabled(), period());
    if (const Fill fill = buffer_fill(); fill.bytes > 0) {
      status += "; " +
                status::buffer_text(fill.records, fill.used + sizeof(staging_buffer_s), fill.bytes);
    }
    for (const std::string* trouble : {&room_.text(), &buffer_.text()}) {
      if (!trouble->empty()) status = *trouble;
    }
    if (!settings_.trouble().empty()) {
      status =
          fmt::format("degraded: the previous settings hold: {}; {}", settings_.trouble(), status);
    }
    sd_notifyf(0, "%sSTATUS=%s", state, status.c_str());
    tell_cluster();
  }

 private:
  // Other nodes cannot look into the memory of this one.
  void tell_cluster() const {
    if (settings_.node().empty()) return;
    const Fill fill = buffer_fill();
    cluster::say_staged(settings_.node(), {.records = fill.records, .bytes = fill.used});
  }

  // Makes the buffer again if somebody took it away, and does what else is due in each period.
  void tend() {
    look_for_lost_buffer();
    std::string problem;
    own_staging_buffer(settings_.buffer_bytes(), problem);
    buffer_.set(problem);
    set_running_mark();
    repeat_rescan_request();
    settings_.offer_size();
    settle_stranded_files();
  }

  Settings settings_;
  std::string file_;
  Trouble room_;
  Trouble buffer_;
};

// Returns the number of a signal that comes within the given seconds, or 0.
int wait_for_signal(const Fd& fd, int seconds) {
  pollfd ready{fd.get(), POLLIN, 0};
  return poll(&ready, 1, seconds * 1000) == 1 ? service::next_signal(fd) : 0;
}

int run(Sweeper& sweeper, const Fd& fd) {
  say(Tone::kInfo, status::flushing_text(false, period()));
  sweeper.notify("READY=1\n");
  for (;;) {
    switch (wait_for_signal(fd, period())) {
      case 0:
        sweeper.sweep();
        sweeper.notify("");
        break;
      case SIGHUP:
        sd_notify(0, "RELOADING=1");
        sweeper.reload();
        say(Tone::kInfo, "settings read: " + status::flushing_text(is_disabled(), period()));
        sweeper.notify("READY=1\n");
        break;
      default:
        sd_notify(0, "STOPPING=1");
        sweeper.finish("last");
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
  std::string settings;
  app.add_flag("--once", once, "make the buffer if there is none, flush it, and exit");
  app.add_flag("--foreground", foreground,
               "do not go to the background, as service managers want it");
  app.add_option("--settings", settings, "fill the parameter block from this file")
      ->type_name("FILE");
  app.footer(
      "SIGHUP reads the settings again; SIGTERM flushes once more and exits.\n"
      "Settings: \"SWEEPER:flush period\", \"disable sweeper flush\", \"staging dir\" and\n"
      "\"staging buffer size\".");
  tavrix::cli::add_examples(app, {{"tavrix-sweeper --foreground --settings /etc/tavrix/tavrix.conf",
                                   "as the service does: flush on a period, and do not end"},
                                  {"tavrix-sweeper --once", "flush what is there, and exit"}});
  if (const auto ended = tavrix::cli::parse(app, argc, argv); ended) return *ended;
  if (geteuid() != 0) {
    say(tavrix::service::Tone::kError, "run this as root");
    return 2;
  }
  openlog("tavrix-sweeper", LOG_PID, LOG_DAEMON);
  Sweeper sweeper(settings);
  if (!sweeper.start()) return 2;
  if (once) return sweeper.finish("once") ? 0 : 1;
  if (!foreground && daemon(0, 1) != 0) return 2;
  const tavrix::Fd fd = tavrix::service::take_signals();
  return fd ? run(sweeper, fd) : 2;
}
