// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/running_mark.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/cluster/lost.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/cluster/running.hpp"
#include "tools/files/boot.hpp"
#include "tools/service/service.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/sweeper/paths.hpp"
#include "tools/sweeper/staging_owner.hpp"
#include "tools/sweeper/trouble.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix::sweeper {
namespace {

using service::say;
using service::Tone;

std::string first_line(const char* path) {
  std::string line;
  std::ifstream in(path);
  std::getline(in, line);
  return line;
}

// This node of a cluster; empty on a machine that is alone.
std::string& node() {
  static std::string name;
  return name;
}

std::string mark() {
  return node().empty() ? std::string(kRunningMark) : cluster::running_mark_path(node());
}

bool is_there() { return access(mark().c_str(), F_OK) == 0; }

bool is_of_this_boot() { return first_line(mark().c_str()) == files::this_boot(); }

bool is_node(const std::string& settings_file) {
  return settings::ServiceSettings::read(settings_file.empty() ? settings::kSettingsFile
                                                               : settings_file)
      .is_on("CLUSTER:enabled");
}

// The lasting troubles that the mark, or the rescan alarm, cannot be written.
Trouble& trouble_of_mark() {
  static Trouble trouble(Tone::kError);
  return trouble;
}
Trouble& trouble_of_rescan() {
  static Trouble trouble(Tone::kError);
  return trouble;
}

// The reason of a rescan request that could not be written yet; empty when there is none.
std::string& unwritten_reason() {
  static std::string reason;
  return reason;
}

// Asks for a rescan because of a lost node. A request that fails is tried again with the taken
// mark.
bool tell_of_lost_node(const std::string& lost) {
  const std::string reason = cluster::reason_of_loss(lost);
  if (mark_event_db_as_rescan_needed(reason.c_str()) != 0) {
    trouble_of_rescan().set(fmt::format("{}, and {} cannot be written: {}; trying again", reason,
                                        TAVRIX_RESCAN_PATH, std::strerror(errno)));
    return false;
  }
  trouble_of_rescan().set("");
  say(Tone::kError, reason + "; the agent is asked for a rescan");
  return true;
}

// Makes the mark of a machine that is alone.
bool make_mark() {
  const Fd file(open(kRunningMark, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  const std::string text = files::this_boot() + "\n";
  return file && write_all(file.get(), text.data(), text.size()) >= 0 && fsync(file.get()) == 0 &&
         (sync_folder(kConfFolder), true);
}

bool set_mark() {
  if (!node().empty()) return cluster::set_running_mark(node());
  if (!is_there() || !is_of_this_boot()) return make_mark();
  // The time of the mark is that of the last period's work.
  utimensat(AT_FDCWD, kRunningMark, nullptr, 0);
  return true;
}

// A machine that was alone before it became a node has left a mark that nobody touches any more.
void look_for_mark_of_before() {
  if (access(kRunningMark, F_OK) != 0) return;
  if (first_line(kRunningMark) != files::this_boot() || is_segment_missing())
    ask_for_rescan("the machine stopped while events were in memory");
  if (unlink(kRunningMark) == 0) sync_folder(kConfFolder);
}

// Tells of nodes whose tellers died, and of an earlier run of this one.
void look_for_lost_nodes() {
  look_for_mark_of_before();
  cluster::finish_taken_marks(tell_of_lost_node);
  if (is_there() && !is_of_this_boot()) cluster::take_running_mark(node(), tell_of_lost_node);
}

}  // namespace

bool choose_running_mark(const std::string& settings_file, std::string& problem) {
  if (!is_node(settings_file)) return true;
  node() = cluster::this_node();
  if (!node().empty()) return true;
  problem =
      "this machine's host name cannot be a node's name: it may have letters, digits, '-', '_' and "
      "at most 64 of them; \"hostnamectl hostname NAME\" sets another";
  return false;
}

std::string running_mark_path(const std::string& settings_file) {
  const std::string name = is_node(settings_file) ? cluster::this_node() : "";
  return name.empty() ? std::string(kRunningMark) : cluster::running_mark_path(name);
}

void look_for_lost_buffer() {
  if (!node().empty()) look_for_lost_nodes();
  if (!is_there() || !is_segment_missing()) return;
  const std::string prefix = node().empty() ? "" : fmt::format("node {}: ", node());
  ask_for_rescan(prefix + (is_of_this_boot()
                               ? "the staging buffer was taken away while it was in use"
                               : "the machine stopped while events were in memory"));
}

void set_running_mark() {
  if (set_mark()) return trouble_of_mark().set("");
  trouble_of_mark().set(
      errno == EEXIST
          ? fmt::format("{} is the mark of another machine with this host name; give each node a "
                        "name of its own",
                        mark())
          : fmt::format("{}: {}; if the machine stops now, nobody notices that events were lost",
                        mark(), std::strerror(errno)));
}

void clear_running_mark() {
  if (unlink(mark().c_str()) != 0) return;
  sync_folder(node().empty() ? kConfFolder : cluster::kRunningFolder);
}

void ask_for_rescan(const std::string& reason) {
  if (mark_event_db_as_rescan_needed(reason.c_str()) == 0) {
    say(Tone::kError, reason + "; the agent is asked for a rescan");
    unwritten_reason().clear();
    return trouble_of_rescan().set("");
  }
  trouble_of_rescan().set(fmt::format("{}, and {} cannot be written: {}; trying again", reason,
                                      TAVRIX_RESCAN_PATH, std::strerror(errno)));
  unwritten_reason() = reason;
}

void repeat_rescan_request() {
  if (const std::string reason = unwritten_reason(); !reason.empty()) ask_for_rescan(reason);
}

}  // namespace tavrix::sweeper
