// tavrix-loader: makes the maps that the synchronisation agent hands over current.

#include <poll.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <csignal>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tools/loader/inbox.hpp"
#include "tools/loader/maps.hpp"
#include "tools/mapload/map_loader.hpp"
#include "tools/patterns/complaints.hpp"
#include "tools/service/service.hpp"

namespace tavrix::loader {
namespace {

constexpr const char* kDefaultFolder = "/var/lib/tavrix/maps";

using service::Tone;

// What is wrong for as long as the settings stay goes with every status: nobody reads the line of
// long ago.
std::string standing_warning;

void announce(Tone tone, const std::string& text) {
  service::say(tone, text);
  sd_notifyf(0, "STATUS=%s%s", text.substr(0, text.find('\n')).c_str(), standing_warning.c_str());
}

void look_at_patterns() {
  const auto complaints = patterns::complaints(global_params);
  for (const std::string& line : complaints) service::say(Tone::kWarning, line);
  standing_warning = complaints.empty() ? "" : "; look at the pattern file: " + complaints.back();
}

// One pair, from the folder or from an earlier run; under the lock.
bool load(const Inbox& inbox, const Pair& pair) {
  const Result result = load_pair(pair);
  if (result.good) {
    inbox.finish(pair);
    announce(Tone::kInfo, result.text);
    return true;
  }
  const std::string where = inbox.refuse(pair, result.text);
  announce(Tone::kWarning, "refused, see " + where + ": " + result.text);
  return false;
}

// What an earlier run, or a restart of the machine, left to do. A loader that died may have left
// its import running, which holds the lock and removes the pair at its end: nothing is looked at
// before.
bool settle(const Inbox& inbox) {
  const Fd lock = mapload::lock_maps();
  const auto unfinished = inbox.unfinished();
  const Recovery recovery = recover(unfinished.has_value());
  if (recovery.removed_table) announce(Tone::kNotice, "removed the table of a loader that died");
  if (recovery.took_copy_back) announce(Tone::kNotice, "took back the local copy of before");
  if (unfinished) return load(inbox, *unfinished);
  if (has_map() && !recovery.must_restore) return true;
  if (!has_local_copy()) {
    announce(Tone::kNotice, "no map yet: waiting for the first one");
    return true;
  }
  const Result result = restore();
  announce(result.good ? Tone::kInfo : Tone::kError,
           (result.good ? "restored: " : "cannot restore: ") + result.text);
  return result.good;
}

bool load_what_is_there(const Inbox& inbox) {
  bool good = true;
  for (;;) {
    // Also for the taking: what another loader has in work is not to be touched.
    const Fd lock = mapload::lock_maps();
    const auto pair = inbox.take();
    if (!pair) return good;
    good = load(inbox, *pair) && good;
  }
}

int run(const Inbox& inbox) {
  const Fd stop = service::take_signals();
  const Fd watch = inbox.watch();
  if (!stop || !watch) {
    announce(Tone::kError, "cannot watch the folder");
    return 2;
  }
  sd_notify(0, "READY=1");
  // After the watch is set: what came before it is found here.
  load_what_is_there(inbox);
  for (;;) {
    pollfd ready[] = {{stop.get(), POLLIN, 0}, {watch.get(), POLLIN, 0}};
    if (poll(ready, 2, -1) < 0) continue;
    if (ready[1].revents != 0) {
      Inbox::drain(watch);
      load_what_is_there(inbox);
    }
    if (ready[0].revents == 0) continue;
    const int signal = service::next_signal(stop);
    if (signal == SIGHUP && read_tavrix_config() == 0) look_at_patterns();
    if (signal == 0 || signal == SIGHUP) continue;
    sd_notify(0, "STOPPING=1");
    return 0;
  }
}

}  // namespace
}  // namespace tavrix::loader

int main(int argc, char** argv) {
  using namespace tavrix::loader;
  CLI::App app{"Makes the permission maps that are handed over in a folder current."};
  std::string folder = kDefaultFolder;
  bool once = false;
  app.add_option("--dir", folder, "the folder of the hand-over")->capture_default_str();
  app.add_flag("--once", once, "load what is there, restore if there is no map, and end");
  app.footer(
      "A pair is DIR/size.json and DIR/data.json, each renamed into place when it is whole.\n"
      "A pair that is refused lies in DIR/refused with the reason beside it.");
  CLI11_PARSE(app, argc, argv);
  if (geteuid() != 0) {
    announce(Tone::kError, "run this as root");
    return 2;
  }
  openlog("tavrix-loader", LOG_PID, LOG_DAEMON);
  if (tavrix::loader::Inbox(folder).prepare() != "" || read_tavrix_config() != 0) {
    announce(Tone::kError, "cannot use " + folder + ", or there are no settings");
    return 2;
  }
  look_at_patterns();
  const Inbox inbox(folder);
  const bool settled = settle(inbox);
  if (!once) return run(inbox);
  return load_what_is_there(inbox) && settled ? 0 : 1;
}
