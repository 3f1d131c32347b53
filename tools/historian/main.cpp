// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-historian: keeps every event and audit record in a database.

#include <poll.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <memory>

#include "tools/cli/command_line.hpp"
#include "tools/cli/help.hpp"
#include "tools/historian/historian.hpp"
#include "tools/historian/settings.hpp"
#include "tools/service/service.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::historian {
namespace {

using service::say;
using service::Tone;

constexpr int kPeriod = 3000;  // milliseconds between two looks when nothing comes

class Service {
 public:
  explicit Service(std::string file) : file_(std::move(file)) { begin(); }

  int run() {
    signals_ = service::take_signals();
    if (!signals_) return 2;
    say(Tone::kInfo, "keeping the history");
    notify("READY=1\n");
    while (!stops_) {
      historian_->look([this] { return look_for_signals(); });
      notify("");
      if (!stops_) wait();
      historian_->drain_changes();
      look_for_signals();
    }
    sd_notify(0, "STOPPING=1");
    historian_->look([] { return false; });
    say(Tone::kInfo, "stopped: " + historian_->status());
    return 0;
  }

  int run_once() {
    bool is_done = historian_->look([] { return false; });
    while (is_done && historian_->is_pruning()) is_done = historian_->look([] { return false; });
    return is_done && waiting_links().empty() ? 0 : 1;
  }

 private:
  void begin() {
    Settings settings = read_settings(file_);
    for (const std::string& line : settings.warnings) say(Tone::kWarning, line);
    historian_.reset();  // gives up its locks
    historian_ = std::make_unique<Historian>(std::move(settings));
    historian_->switch_on();
  }

  void wait() {
    pollfd ready[] = {{signals_.get(), POLLIN, 0}, {historian_->changes().get(), POLLIN, 0}};
    poll(ready, 2, historian_->is_pruning() ? 0 : kPeriod);
  }

  bool look_for_signals() {
    while (const int signal = service::next_signal(signals_)) {
      if (signal == SIGHUP) {
        is_reload_wanted_ = true;
      } else {
        stops_ = true;
      }
    }
    return stops_ || is_reload_wanted_;
  }

  void notify(const char* state) {
    if (is_reload_wanted_) {
      is_reload_wanted_ = false;
      sd_notify(0, "RELOADING=1");
      begin();
      state = "READY=1\n";
    }
    sd_notifyf(0, "%sSTATUS=%s", state, historian_->status().c_str());
  }

  std::string file_;
  std::unique_ptr<Historian> historian_;
  Fd signals_;
  bool stops_ = false;
  bool is_reload_wanted_ = false;
};

int run(const std::string& settings, bool once) {
  try {
    Service service(settings);
    return once ? service.run_once() : service.run();
  } catch (const std::exception& error) {
    // The service manager starts it again; what waits is still there.
    say(Tone::kError, error.what());
    return 2;
  }
}

}  // namespace
}  // namespace tavrix::historian

int main(int argc, char** argv) {
  CLI::App app{"Keeps every event and audit record of the file server in a database."};
  bool once = false;
  std::string settings = tavrix::settings::kSettingsFile;
  app.add_flag("--once", once, "take the dump files that wait, remove what is too old, and exit");
  app.add_option("--settings", settings, "read the settings from this file")
      ->type_name("FILE")
      ->capture_default_str();
  app.footer(
      "SIGHUP reads the settings again; SIGTERM takes once more what waits and exits.\n"
      "Settings: the section HISTORIAN of tavrix.conf(5).");
  tavrix::cli::add_examples(app, {{"tavrix-historian", "as the service does, and do not end"},
                                  {"tavrix-historian --once", "take what waits, and exit"}});
  if (const auto ended = tavrix::cli::parse(app, argc, argv); ended) return *ended;
  if (geteuid() != 0) {
    tavrix::service::say(tavrix::service::Tone::kError, "run this as root");
    return 2;
  }
  openlog("tavrix-historian", LOG_PID, LOG_DAEMON);
  return tavrix::historian::run(settings, once);
}
