// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/historian.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <utility>

#include "tools/cluster/node.hpp"
#include "tools/cluster/node_folders.hpp"
#include "tools/files/durable.hpp"
#include "tools/historian/alarms.hpp"
#include "tools/historian/dump_rows.hpp"
#include "tools/historian/paths.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/shown.hpp"

namespace tavrix::historian {
namespace {

using history::number_of;
using service::say;
using service::Tone;
using Steady = std::chrono::steady_clock;

// Limits of one transaction.
constexpr std::size_t kMostDumps = 1024;
constexpr std::size_t kMostBytes = 32 << 20;
constexpr auto kPruneEvery = std::chrono::hours(1);

bool is_that_folder(const Fd& fd, const std::string& folder) {
  struct stat open_one {};
  struct stat named {};
  return fd && fstat(fd.get(), &open_one) == 0 && stat(folder.c_str(), &named) == 0 &&
         open_one.st_dev == named.st_dev && open_one.st_ino == named.st_ino;
}

Fd watch(const char* folder) {
  Fd changes(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (changes && inotify_add_watch(changes.get(), folder, IN_CREATE | IN_MOVED_TO) == -1) {
    changes.reset();
  }
  return changes;
}

int64_t known_time(sqlite3* database) {
  return number_of(database, "SELECT value FROM meta WHERE key = 'clock'").value_or(0);
}

}  // namespace

// The dump files of one transaction.
struct Historian::Batch {
  std::vector<std::string> done;                             // in the database when it commits
  std::vector<std::pair<std::string, std::string>> foreign;  // with the reasons
  std::vector<MassChange> mass_changes;
  uint64_t records = 0;
  std::size_t bytes = 0;
  std::string unreadable;
};

Historian::Historian(Settings settings)
    : settings_(std::move(settings)), store_(settings_.database, settings_.group) {}

bool Historian::switch_on() {
  const Folder folder = make_links_folder();
  if (folder == Folder::kFailed) {
    trouble_.set(fmt::format("{}: {}", kLinks, std::strerror(errno)));
    return false;
  }
  was_made_ = was_made_ || folder == Folder::kMade;
  is_adopted_ = false;
  return true;
}

// One historian works at a time: it holds the folder of the links and that of the database.
bool Historian::hold_folders() {
  if (!has_links_folder()) {
    links_lock_.reset();
    changes_.reset();
    trouble_.set(fmt::format("{} is gone: nothing is kept until this service is reloaded", kLinks));
    return false;
  }
  history::Problem problem;
  if (!store_.make_folder(problem)) {
    trouble_.set(problem.sentence);
    return false;
  }
  const std::string folder = files::folder_of(store_.file());
  if (!is_that_folder(database_lock_, folder)) database_lock_ = lock_folder(folder);
  if (database_lock_ && !is_that_folder(links_lock_, kLinks)) {
    links_lock_ = lock_folder(kLinks);
    changes_ = watch(kLinks);
  }
  const bool is_held = database_lock_ && links_lock_;
  waiting_.set(is_held ? "" : "waiting: another historian is at work");
  return is_held;
}

bool Historian::open_store() {
  if (store_ && !store_.is_in_place()) {
    session_.reset();
    store_.close();
  }
  const bool is_open = static_cast<bool>(store_);
  history::Problem problem;
  if (!store_.open(problem)) {
    trouble_.set(problem.sentence);
    return false;
  }
  group_.set(store_.group_problem());
  if (is_open && session_) return true;
  session_.emplace(store_.get(), settings_);
  // A database that was made anew may get back what still waits for the agent.
  is_adopted_ = false;
  return session_->mass_changes.resume(store_.get()) || fail();
}

// Remembers the failure of the connection. Transactions and statements end before it is dealt with.
bool Historian::fail() {
  if (!failure_) failure_ = history::problem_of(store_.get(), store_.file());
  return false;
}

// Closes the database after a failure; the next look opens it again. True when it was damaged and a
// new one is open.
bool Historian::recover() {
  const history::Problem problem = *std::exchange(failure_, std::nullopt);
  session_.reset();
  if (store_.replace_damaged(problem)) return true;
  trouble_.set(problem.sentence);
  return false;
}

std::vector<std::string> Historian::folders_in(const std::string& folder) const {
  std::vector<std::string> folders{folder};
  if (!settings_.has_nodes) return folders;
  for (const std::string& node : cluster::nodes_in(folder)) {
    folders.push_back(cluster::folder_of(folder, node));
  }
  return folders;
}

// On a cluster, the folder of a dump file has the name of its node. Files of before the cluster lie
// in the folder that the nodes' folders are in now.
std::string Historian::node_of(const Link& link) const {
  const std::filesystem::path shared = link.is_audit ? settings_.auditing : settings_.staging;
  const bool is_nodes =
      settings_.has_nodes && link.folder != shared.filename() && cluster::is_node_name(link.folder);
  return is_nodes ? link.folder : std::string();
}

void Historian::adopt() {
  const auto taken = number_of(store_.get(), "SELECT value FROM meta WHERE key = 'taken'");
  if (was_made_ && taken) {
    static_cast<void>(add_notice(
        store_.get(), history::kNoticeGap, now_micros(),
        "the history was switched off until this time: files that the agent took meanwhile are "
        "missing"));
  }
  const auto pruned = number_of(store_.get(), "SELECT value FROM meta WHERE key = 'pruned'");
  adopt_waiting_dumps(folders_in(settings_.staging), folders_in(settings_.auditing),
                      pruned.value_or(0));
  was_made_ = false;
  is_adopted_ = true;
}

bool Historian::take_into(Batch& batch, const Link& link) {
  Content content;
  switch (read_link_file(link.name, content)) {
    case Read::kGone:
      return true;
    case Read::kForeign:
      batch.foreign.emplace_back(link.name, "it is no file of records");
      return true;
    case Read::kFailed:
      batch.unreadable = fmt::format("{}/{}: {}", kLinks, link.name, std::strerror(errno));
      return true;
    case Read::kDone:
      break;
  }
  batch.bytes += content.bytes.size();
  const DumpRows dump = rows_of(content.bytes, link.is_audit);
  if (!dump.problem.empty()) {
    batch.foreign.emplace_back(link.name, dump.problem);
    return true;
  }
  const auto result = session_->taker.take(link, content, dump, now_micros());
  if (result == Taker::Result::kFailed) return false;
  batch.done.push_back(link.name);
  if (result == Taker::Result::kSeen) return true;
  batch.records += dump.rows.size();
  for (MassChange& change : session_->mass_changes.look(dump.rows)) {
    const char* kind = change.is_rename ? history::kNoticeMassRename : history::kNoticeMassDelete;
    if (!add_notice(store_.get(), kind, change.time, change.sentence(), change.uid, change.count)) {
      return false;
    }
    batch.mass_changes.push_back(std::move(change));
  }
  return true;
}

bool Historian::take(std::span<const Link> links, std::size_t& used) {
  Batch batch;
  {
    history::Transaction transaction(store_.get());
    if (!transaction.begun()) return fail();
    for (const Link& link : links) {
      if (used == kMostDumps || batch.bytes >= kMostBytes) break;
      if (!take_into(batch, link)) return fail();
      ++used;
    }
    if (!transaction.commit()) return fail();
  }
  return finish(batch);
}

// The links go when their records are on the disk, in the database that readers find.
bool Historian::finish(const Batch& batch) {
  if (!store_.is_in_place()) return false;
  taken_ += batch.records;
  if (!batch.unreadable.empty()) stuck_ = batch.unreadable;
  for (const std::string& name : batch.done) {
    if (!remove_link(name)) stuck_ = fmt::format("{}/{}: {}", kLinks, name, std::strerror(errno));
  }
  for (const auto& [name, reason] : batch.foreign) {
    if (!refuse(name, reason)) {
      stuck_ = fmt::format("{}/{}: {}", kLinks, name, std::strerror(errno));
    }
  }
  for (const MassChange& change : batch.mass_changes) say(Tone::kWarning, change.sentence());
  return true;
}

bool Historian::refuse(const std::string& name, const std::string& reason) {
  if (!refuse_link(name, reason)) return false;
  const std::string sentence =
      fmt::format("{} is set aside in {}: {}", text::shown(name), kRefused, reason);
  say(Tone::kError, sentence);
  static_cast<void>(add_notice(store_.get(), history::kNoticeRefused, now_micros(), sentence));
  return true;
}

bool Historian::take_all(const std::function<bool()>& should_stop) {
  std::vector<Link> links = waiting_links();
  for (Link& link : links) link.node = node_of(link);
  stuck_.clear();
  for (std::size_t at = 0; at < links.size();) {
    std::size_t used = 0;
    if (!take(std::span(links).subspan(at), used)) return false;
    at += used;
    if (should_stop()) break;
  }
  stuck_trouble_.set(stuck_);
  return true;
}

// Works in steps, so that dump files are taken in between.
bool Historian::prune_when_due() {
  const auto steady = Steady::now();
  const int64_t now = now_micros();
  clock_.look(now, steady, known_time(store_.get()));
  if (!is_pruning_ && steady < next_prune_) return true;
  if (!is_pruning_ && clock_.is_trusted()) {
    history::Statement remember(store_.get(), "INSERT OR REPLACE INTO meta VALUES ('clock', ?)");
    remember.bind(1, now);
    if (!remember.run()) return fail();
  }
  const Pruned result = prune(store_.get(), settings_.limits, now, clock_.is_trusted());
  if (result == Pruned::kFailed) return fail();
  is_pruning_ = result == Pruned::kSome;
  next_prune_ = steady + kPruneEvery;
  return true;
}

bool Historian::look(const std::function<bool()>& should_stop) {
  set_mark();
  if (work(should_stop)) return true;
  return failure_ && recover() && work(should_stop);
}

bool Historian::work(const std::function<bool()>& should_stop) {
  if (!hold_folders() || !open_store()) return false;
  if (!is_adopted_) adopt();
  if (!note_alarms(store_.get())) return fail();
  if (!take_all(should_stop) || !prune_when_due()) return false;
  trouble_.set("");
  return true;
}

void Historian::drain_changes() const {
  alignas(inotify_event) char events[4096];
  while (changes_ && read(changes_.get(), events, sizeof events) > 0) {
  }
}

std::string Historian::status() const {
  for (const auto* trouble : {&trouble_, &waiting_, &stuck_trouble_, &group_}) {
    if (!trouble->text().empty()) return trouble->text();
  }
  return fmt::format("keeping the history; {} taken since the start",
                     text::counted(taken_, "record"));
}

void Historian::set_mark() const {
  if (utimensat(AT_FDCWD, kMark, nullptr, 0) == 0) return;
  const Fd made(open(kMark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
}

}  // namespace tavrix::historian
