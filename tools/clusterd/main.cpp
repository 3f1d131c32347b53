// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrix-clusterd: keeps the same permission map in force on all nodes of a cluster.

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>

#include "tavrix_vfs_utils.h"
#include "tools/cli/command_line.hpp"
#include "tools/cli/help.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/clusterd/member.hpp"
#include "tools/service/service.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::clusterd {
namespace {

using service::say;
using service::Tone;
using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds kBusyPeriod{500};
constexpr milliseconds kHurriedPeriod{50};
constexpr std::chrono::seconds kPatience{10};

struct Order {
  bool is_once = false, is_join = false, is_question = false;
  unsigned wait = 60;  // seconds
};

// One daemon a node: two would prepare the same image under the same name. A child of a daemon that
// was killed has the lock for a moment longer.
Fd try_lock_node() {
  if (mkdir(cluster::kPreparedFolder, 0700) != 0 && errno != EEXIST) return Fd();
  const std::string path = std::string(cluster::kPreparedFolder) + "/.lock";
  Fd lock(open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
  if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) lock.reset();
  return lock;
}

Fd lock_node(std::chrono::seconds patience) {
  const auto end = Clock::now() + patience;
  for (;;) {
    Fd lock = try_lock_node();
    if (lock || errno != EWOULDBLOCK || Clock::now() >= end) return lock;
    poll(nullptr, 0, static_cast<int>(kHurriedPeriod.count()));
  }
}

class Service {
 public:
  explicit Service(const Settings& settings) : member_(settings) {}

  int run() {
    signals_ = service::take_signals();
    if (!signals_) return 2;
    member_.look();
    sd_notifyf(0, "READY=1\nSTATUS=%s", member_.status().c_str());
    for (pause(); !stops_; pause()) {
      member_.look();
      sd_notifyf(0, "STATUS=%s", member_.status().c_str());
    }
    sd_notify(0, "STOPPING=1");
    return 0;
  }

 private:
  void pause() {
    const milliseconds period = member_.period();
    const milliseconds time = member_.is_busy() ? std::min(kBusyPeriod, period) : period;
    pollfd ready[] = {{signals_.get(), POLLIN, 0}};
    poll(ready, 1, static_cast<int>(time.count()));
    while (const int signal = service::next_signal(signals_)) stops_ |= signal != SIGHUP;
  }

  Member member_;
  Fd signals_;
  bool stops_ = false;
};

// Looks until there is nothing to do, or, to join, until the committed map is in force here.
int run_for_a_while(const Settings& settings, const Order& order) {
  Member member(settings);
  const auto end = Clock::now() + std::chrono::seconds(order.wait);
  for (;;) {
    member.look();
    const bool is_done = member.is_current() && (order.is_join || !member.is_busy());
    if (is_done) return 0;
    if (Clock::now() >= end) break;
    poll(nullptr, 0, static_cast<int>(kHurriedPeriod.count()));
  }
  const std::string problem = member.problem();
  say(Tone::kError, problem.empty() ? "a map still waits for other nodes" : problem);
  return 1;
}

// The running daemon does the work; its lease is given once the committed map is in force. If it
// ends meanwhile, the work is done here.
int join_beside_daemon(const Settings& settings, const Order& order) {
  const auto end = Clock::now() + std::chrono::seconds(order.wait);
  do {
    if (cluster::lease_end().value_or(0) > cluster::lease_clock()) return 0;
    if (const Fd lock = try_lock_node()) return run_for_a_while(settings, order);
    poll(nullptr, 0, static_cast<int>(kHurriedPeriod.count()));
  } while (Clock::now() < end);
  say(Tone::kError,
      "the running tavrix-clusterd has not brought this node up to date; its status says why");
  return 1;
}

constexpr const char* kNoNode =
    "this machine is no node of a cluster: CLUSTER:enabled is no in tavrix.conf";

// Settings that keep the daemon from its work: a sentence, or an empty text.
std::string obstacle(const Settings& settings) {
  if (!settings.is_enabled) return kNoNode;
  if (settings.node.empty()) {
    return "the host name is no name of a node: it needs letters and digits, at most 64";
  }
  if (read_tavrix_config() != 0) {
    return "there are no settings; \"tavrixctl config load FILE\" loads them";
  }
  return {};
}

// The service manager asks before it starts the service, which then does not count as failed.
int tell_whether_enabled(const Settings& settings) {
  if (settings.is_enabled) return 0;
  say(Tone::kInfo, kNoNode);
  return 1;
}

int run(const Settings& settings, const Order& order) {
  if (order.is_question) return tell_whether_enabled(settings);
  for (const std::string& line : settings.warnings) say(Tone::kWarning, line);
  if (const std::string why = obstacle(settings); !why.empty()) {
    say(Tone::kError, why);
    return 2;
  }
  const Fd lock = lock_node(order.is_join ? std::chrono::seconds(0) : kPatience);
  if (!lock && errno != EWOULDBLOCK) {
    say(Tone::kError, fmt::format("{}: {}", cluster::kPreparedFolder, std::strerror(errno)));
    return 2;
  }
  if (!lock && !order.is_join) {
    say(Tone::kError, "another tavrix-clusterd runs on this node");
    return 2;
  }
  if (!lock) return join_beside_daemon(settings, order);
  try {
    return order.is_once || order.is_join ? run_for_a_while(settings, order)
                                          : Service(settings).run();
  } catch (const std::exception& error) {
    // The service manager starts it again; what it has not finished is there still.
    say(Tone::kError, error.what());
    return 2;
  }
}

}  // namespace
}  // namespace tavrix::clusterd

int main(int argc, char** argv) {
  CLI::App app{"Keeps the same permission map in force on all nodes of a cluster."};
  tavrix::clusterd::Order order;
  std::string file = tavrix::settings::kSettingsFile;
  std::string leader_file;
  const auto once =
      app.add_flag("--once", order.is_once, "do what waits, and exit when nothing is left to do");
  app.add_flag("--join", order.is_join, "exit as soon as the committed map is in force here")
      ->excludes(once);
  app.add_flag("--is-enabled", order.is_question,
               "only tell whether this machine is a node of a cluster (exit 1: it is not)");
  app.add_option("--wait", order.wait, "give up --once and --join after that many seconds")
      ->type_name("SECONDS")
      ->capture_default_str();
  app.add_option("--leader-file", leader_file, "commit maps only while this file names this node")
      ->type_name("FILE");
  app.add_option("--settings", file, "read the settings from this file")
      ->type_name("FILE")
      ->capture_default_str();
  app.footer(
      "The exit code is 0 when the committed map is in force, 1 when it is not yet, and 2 when "
      "the\n"
      "daemon cannot work. Settings: the section CLUSTER of tavrix.conf(5).");
  tavrix::cli::add_examples(
      app, {{"tavrix-clusterd", "as the service does, and do not end"},
            {"tavrix-clusterd --join", "before the file server starts: bring the map up to date"},
            {"tavrix-clusterd --once", "do what waits, and exit"}});
  if (const auto ended = tavrix::cli::parse(app, argc, argv); ended) return *ended;
  if (geteuid() != 0) {
    tavrix::service::say(tavrix::service::Tone::kError, "run this as root");
    return 2;
  }
  openlog("tavrix-clusterd", LOG_PID, LOG_DAEMON);
  auto settings = tavrix::clusterd::read_settings(file);
  settings.leader_file = leader_file;
  return tavrix::clusterd::run(settings, order);
}
