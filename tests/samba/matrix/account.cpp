// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/samba/matrix/account.hpp"

#include <gtest/gtest.h>
#include <set>
#include <sstream>

#include "eventstore.h"
#include "tests/samba/matrix/judge.hpp"
#include "tests/support/files.hpp"

namespace tavrix::test {
namespace {

struct Told {
  std::string type, kind, path, to;
};

std::string in_share(const std::string& path) {
  const std::string root = kShareRoot + "/";
  if (path == kShareRoot) return "";
  return path.starts_with(root) ? path.substr(root.size()) : path;
}

// No name in the tables has a blank, so words can be split there.
Told parsed(const std::string& line) {
  Told told;
  std::string arrow;
  std::istringstream in(line);
  in >> told.type >> told.kind >> told.path >> arrow >> told.to;
  told.path = in_share(told.path);
  told.to = in_share(told.to);
  return told;
}

// The tree of before after the events were applied to it.
class Replay {
 public:
  explicit Replay(const Disk& before) {
    for (const auto& [path, object] : before.objects()) tree_[path] = object.is_folder;
  }
  // Returns a complaint, or an empty text.
  std::string play(const Told& told) {
    const bool there = tree_.contains(told.path);
    if (told.type != "OPEN") touched_.insert(parent_of(told.path));
    if (told.type == "RENAME") touched_.insert(parent_of(told.to));
    if (told.type == "CREATE" || told.type == "MKDIR") {
      made_.insert(told.path);
      tree_[told.path] = told.type == "MKDIR";
      return there ? "an event makes what was there: " : "";
    }
    if (!there) return "an event is about nothing: ";
    if (told.type == "OPEN") opened_.insert(told.path);
    if (told.type == "RMDIR" || told.type == "UNLINK") tree_.erase(told.path);
    if (told.type == "RENAME") rename(told.path, told.to);
    return "";
  }
  [[nodiscard]] const std::map<std::string, bool>& tree() const { return tree_; }
  [[nodiscard]] bool was_made(const std::string& path) const { return made_.contains(path); }
  [[nodiscard]] bool was_renamed_to(const std::string& path) const {
    return renamed_to_.contains(path);
  }
  // True if an entry of the folder came, went or was renamed.
  [[nodiscard]] bool was_touched(const std::string& folder) const {
    return touched_.contains(folder);
  }
  [[nodiscard]] bool was_opened(const std::string& path) const { return opened_.contains(path); }

 private:
  std::map<std::string, bool> tree_;
  std::set<std::string> made_, opened_, renamed_to_, touched_;

  static std::set<std::string> renamed(const std::set<std::string>& paths, const std::string& from,
                                       const std::string& to) {
    std::set<std::string> result;
    for (const std::string& path : paths) {
      const bool moves = path == from || path.starts_with(from + "/");
      result.insert(moves ? to + path.substr(from.size()) : path);
    }
    return result;
  }
  void rename(const std::string& from, const std::string& to) {
    std::map<std::string, bool> moved;
    for (const auto& [path, folder] : tree_) {
      const bool moves = path == from || path.starts_with(from + "/");
      if (moves) moved[to + path.substr(from.size())] = folder;
      if (!moves && path != to) moved.emplace(path, folder);
    }
    tree_ = std::move(moved);
    renamed_to_.insert(to);
    made_ = renamed(made_, from, to);
    opened_ = renamed(opened_, from, to);
  }
};

class Audit {
 public:
  explicit Audit(const Account& account)
      : account_(account),
        judge_(*account.map, *account.caller, account.before),
        judge_after_(*account.map, *account.caller, account.after),
        replay_(account.before),
        changes_(changes_between(account.before, account.after)) {}

  std::vector<std::string> complaints() {
    check_events();
    for (const Change& change : changes_) {
      if (!is_allowed(change)) complain("not allowed: " + text_of(change));
    }
    check_stamps();
    if (account_.caller->name != "syncagent") check_that_changes_are_told();
    check_names();
    return complaints_;
  }

 private:
  const Account& account_;
  Judge judge_;
  Judge judge_after_;
  Replay replay_;
  std::vector<Change> changes_;
  std::vector<std::string> complaints_;

  void complain(const std::string& text) { complaints_.push_back(text); }

  bool is_allowed(const Change& change) {
    switch (change.kind) {
      case Change::kAppeared:  // or made elsewhere, and renamed
        return judge_.may_make(change.path, account_.after.find(change.path)->is_folder) ||
               (replay_.was_renamed_to(change.path) && judge_.may_rename_to(change.path));
      case Change::kVanished:
        return judge_.may_remove(change.path);
      case Change::kRenamed:
        return judge_.may_rename(change.path, change.to);
      case Change::kFolderStamped:
        if (replay_.was_touched(change.path)) return true;
        [[fallthrough]];
      default:
        return judge_.may_change(change.path) || judge_after_.may_change(change.path);
    }
  }

  void check_stamps() {
    for (const auto& [path, now] : account_.after.objects()) {
      const Disk::Object* old = account_.before.find(path);
      if (old == nullptr || old->number != now.number || old->stamp == now.stamp) continue;
      if (!judge_.may_change(path)) complain("a stamp on " + path);
    }
  }

  void check_events() {
    for (const Event& event : account_.events) {
      const Told told = parsed(event.what);
      const std::string wrong = replay_.play(told);
      if (!wrong.empty()) complain(wrong + event.what);
      if (event.uid != account_.caller->uid) complain("somebody else's: " + event.what);
      const bool makes = told.type == "CREATE" || told.type == "MKDIR";
      if (makes && !judge_.may_make(told.path, told.type == "MKDIR")) {
        complain("an event makes what is not allowed: " + event.what);
      }
      if (told.type == "OPEN" && !replay_.was_made(told.path) && !judge_.may_change(told.path) &&
          !judge_after_.may_change(told.path)) {
        complain("an event of a change that is not allowed: " + event.what);
      }
    }
    if (account_.caller->name == "syncagent" && !account_.events.empty()) {
      complain("the reserved user is recorded");
    }
  }

  void check_that_changes_are_told() {
    for (const auto& [path, object] : account_.after.objects()) {
      const auto found = replay_.tree().find(path);
      if (found == replay_.tree().end()) complain("not told that it is there: " + path);
    }
    for (const auto& [path, folder] : replay_.tree()) {
      if (account_.after.find(path) == nullptr) complain("not told that it is gone: " + path);
    }
    // The server sets the archive attribute of a file that it renames or links.
    std::set<std::string> renamed;
    for (const Event& event : account_.events) {
      const Told told = parsed(event.what);
      const Disk::Object* old = account_.before.find(told.path);
      if (told.type != "RENAME") continue;
      renamed.insert(told.to);
      if (old != nullptr) renamed.insert(old->leads_to);
    }
    for (const Change& change : changes_) {
      if (change.kind == Change::kLooksChanged && renamed.contains(change.path)) continue;
      const bool alters =
          change.kind == Change::kWritten || change.kind == Change::kLooksChanged ||
          (change.kind == Change::kFolderStamped && !replay_.was_touched(change.path));
      if (alters && !replay_.was_opened(change.path) && !replay_.was_made(change.path)) {
        complain("not told: " + text_of(change));
      }
    }
  }

  void check_names() {
    std::set<std::string> asked;
    const std::string request = account_.request.dump();
    for (const Json& step : account_.answer.value("steps", Json::array())) {
      if (!step.contains("names")) continue;
      for (const std::string name : step["names"]) {
        if (name.empty() || judge_.sees(name) || judge_after_.sees(name)) continue;
        std::string sent = name;  // as the client wrote it
        for (std::size_t at = 0; (at = sent.find('/', at)) != std::string::npos; at += 4) {
          sent.replace(at, 1, "\\\\");
        }
        if (request.find("\"" + sent + "\"") == std::string::npos) complain("told: " + name);
      }
    }
  }
};

}  // namespace

std::vector<std::string> complaints_about(const Account& account) {
  return Audit(account).complaints();
}

std::vector<Event> take_events() {
  std::vector<Event> taken = events();
  if (taken.empty()) return taken;
  EXPECT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  for (const std::string& name : list(kStagingDir)) remove_all(kStagingDir + "/" + name);
  return taken;
}

}  // namespace tavrix::test
