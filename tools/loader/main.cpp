// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-loader: makes the maps that the synchronisation agent hands over current, and keeps the
// current one in place.

#include <poll.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <thread>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tools/cli/command_line.hpp"
#include "tools/cli/help.hpp"
#include "tools/loader/cluster_inbox.hpp"
#include "tools/loader/group_map_watch.hpp"
#include "tools/loader/inbox.hpp"
#include "tools/loader/keeper.hpp"
#include "tools/loader/pinned_watch.hpp"
#include "tools/loader/watch.hpp"
#include "tools/loader/words.hpp"
#include "tools/loader/worker.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/recovery.hpp"
#include "tools/patterns/complaints.hpp"

namespace tavrix::loader {
namespace {

constexpr const char* kDefaultFolder = "/var/lib/tavrix/maps";
constexpr unsigned kDefaultKeptRefusals = 10;
constexpr std::chrono::milliseconds kWatchPeriod{1000};

void look_at_patterns() {
  const auto complaints = patterns::complaints(global_params);
  for (const std::string& line : complaints) service::say(Tone::kWarning, line);
  set_standing_warning(
      "patterns", complaints.empty() ? "" : "; look at the pattern file: " + complaints.back());
}

// Repairs what an earlier run or a restart of the machine left.
bool settle(Keeper& keeper) {
  const Fd lock = mapload::lock_maps();
  if (!lock) {
    tell(Tone::kError, std::string("cannot take the lock of the maps: ") + std::strerror(errno));
    return false;
  }
  const mapload::Recovery recovery = mapload::recover(mapload::Restore::kYes);
  tell(recovery.report);
  set_status(recovery.status);
  if (recovery.good) keeper.keep(mapkeep::kFound);
  return recovery.good;
}

// False when a pair was refused or held, or when no map is in force.
bool load_all(Worker& worker, bool is_settled) {
  bool refused = false;
  for (;;) {
    switch (worker.step(true, {})) {
      case Worker::Step::kNothing:
        return is_settled && !refused;
      case Worker::Step::kPublished:
        is_settled = true;
        break;
      case Worker::Step::kRefused:
      case Worker::Step::kHeld:
        refused = true;
        break;
      default:
        std::this_thread::sleep_for(worker.pause());
    }
  }
}

bool run_once(Inbox& inbox, Keeper& keeper, const std::string& node, unsigned keep_refused) {
  tell(GroupMapWatch().look());
  const bool is_settled = settle(keeper);
  Worker worker(inbox, keeper, hand_over_of(node));
  if (node.empty()) return load_all(worker, is_settled);
  // A new node has no map before the cluster gives it one.
  ClusterInbox shared(keeper, node, keep_refused);
  const bool is_good = load_all(worker, true);
  return (shared.worker() == nullptr || load_all(*shared.worker(), true)) && is_good;
}

class Service {
 public:
  // `node` is empty where this machine is no node of a cluster.
  Service(Inbox& inbox, Keeper& keeper, const std::string& node, unsigned keep_refused)
      : inbox_(inbox), keeper_(keeper), worker_(inbox, keeper, hand_over_of(node)) {
    if (!node.empty()) shared_.emplace(keeper, node, keep_refused);
  }

  int run() {
    settle(keeper_);
    stop_ = service::take_signals();
    const Fd changes = inbox_.watch();
    if (!stop_ || !changes) {
      tell(Tone::kError, std::string("cannot watch the folder: ") + std::strerror(errno));
      return 2;
    }
    sd_notify(0, "READY=1");
    while (!stops_) {
      // The watch is set before this first look, so no file is missed between the two.
      keep_in_place();
      load_what_is_there(worker_);
      if (shared_ && shared_->worker() != nullptr) load_what_is_there(*shared_->worker());
      if (stops_) break;
      pollfd ready[] = {{stop_.get(), POLLIN, 0}, {changes.get(), POLLIN, 0}};
      poll(ready, 2, static_cast<int>(std::min(kWatchPeriod, worker_.pause()).count()));
      Inbox::drain(changes);
      look_for_signals();
    }
    sd_notify(0, "STOPPING=1");
    return 0;
  }

 private:
  void keep_in_place() {
    tell(group_map_.look());
    tell(pinned_.look());
    keeper_.look();
    const auto recovery = watch_.look();
    if (!recovery) return;
    tell(recovery->report);
    set_status(recovery->status);
  }

  void load_what_is_there(Worker& worker) {
    const auto should_stop = [this] { return look_for_signals(); };
    while (!stops_) {
      const Worker::Step step = worker.step(false, should_stop);
      if (step == Worker::Step::kNothing || step == Worker::Step::kWaiting) return;
      look_for_signals();
    }
  }

  bool look_for_signals() {
    while (const int signal = service::next_signal(stop_)) {
      if (signal == SIGHUP) {
        if (read_tavrix_config() == 0) look_at_patterns();
        keeper_.read();
      } else {
        stops_ = true;
      }
    }
    return stops_;
  }

  Inbox& inbox_;
  Keeper& keeper_;
  Worker worker_;
  std::optional<ClusterInbox> shared_;
  Watch watch_;
  GroupMapWatch group_map_;
  PinnedWatch pinned_;
  Fd stop_;
  bool stops_ = false;
};

}  // namespace
}  // namespace tavrix::loader

int main(int argc, char** argv) {
  using namespace tavrix::loader;
  CLI::App app{"Makes the permission maps that are handed over in a folder current."};
  std::string folder = kDefaultFolder;
  unsigned keep_refused = kDefaultKeptRefusals;
  std::string settings_file = tavrix::settings::kSettingsFile;
  bool once = false;
  app.add_option("--dir", folder, "the folder in which maps are handed over")
      ->type_name("DIR")
      ->capture_default_str();
  app.add_option("--keep-refused", keep_refused, "keep the newest N refused pairs; 0 keeps all")
      ->capture_default_str();
  app.add_option("--settings", settings_file, "the settings file, for the section LOADER")
      ->type_name("FILE")
      ->capture_default_str();
  app.add_flag("--once", once,
               "load the pairs that are there, restore the map if it is missing, and exit");
  app.footer(
      "A pair is DIR/size.json and DIR/data.json, each renamed into place when it is complete.\n"
      "A refused pair is kept in DIR/refused, with the reason in reason.txt beside it. A map past\n"
      "the limits of the settings is held: \"tavrixctl map approve\" makes it current. On a node "
      "of\n"
      "a cluster a pair is put up for all nodes, and tavrix-clusterd makes its map current.");
  tavrix::cli::add_examples(
      app, {{"tavrix-loader", "as the service does: load each pair that comes, and do not end"},
            {"tavrix-loader --once", "load what is there, and exit"},
            {"tavrix-loader --once --dir /var/lib/tavrix/maps", "from that folder"}});
  if (const auto ended = tavrix::cli::parse(app, argc, argv); ended) return *ended;
  if (geteuid() != 0) {
    tell(Tone::kError, "run this as root");
    return 2;
  }
  openlog("tavrix-loader", LOG_PID, LOG_DAEMON);
  std::string node;
  if (const std::string obstacle = find_node(settings_file, node); !obstacle.empty()) {
    tell(Tone::kError, obstacle);
    return 2;
  }
  Inbox inbox(folder, keep_refused, !node.empty());
  if (const std::string obstacle = inbox.prepare(); !obstacle.empty()) {
    tell(Tone::kError, obstacle);
    return 2;
  }
  if (read_tavrix_config() != 0) {
    tell(Tone::kError, "there are no settings; \"tavrixctl config load FILE\" loads them");
    return 2;
  }
  look_at_patterns();
  Keeper keeper(settings_file);
  if (!once) return Service(inbox, keeper, node, keep_refused).run();
  return run_once(inbox, keeper, node, keep_refused) ? 0 : 1;
}
