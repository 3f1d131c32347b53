// SPDX-License-Identifier: LGPL-3.0-or-later
// The steps that a decision tells its observer.

#include "permissions/decision/observer.hpp"

#include <gtest/gtest.h>
#include <filesystem>
#include <sstream>

#include "permissions/decision/decision.hpp"
#include "tests/support/rule_table.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {
namespace {

// Writes the steps down, a word each.
class Scribe final : public Observer {
 public:
  explicit Scribe(const void* map = nullptr) : map_(map) {}
  [[nodiscard]] std::string text() const { return steps_.str(); }
  [[nodiscard]] int grounds() const { return grounds_; }
  [[nodiscard]] Ground ground() const { return ground_; }

  const void* other_map() override { return map_; }
  void on_path(const char* path) override { steps_ << "path:" << path; }
  void on_caller(const process_trustees_s& caller) override {
    steps_ << " caller:" << caller.admin << caller.poweruser;
  }
  void on_object(e_file_type type) override { steps_ << " object:" << type; }
  void on_acl(Subject subject, const void* /*map*/, const AclSource& source,
              const tavrix_acl_t& acl) override {
    steps_ << (subject == Subject::kObject ? " self:" : " parent:") << acl.num_aces
           << (source.match.code == SHM_MEMBE_OK && source.match.offset == source.holder ? "own"
                                                                                         : "");
  }
  void on_entry(Subject /*subject*/, const tavrix_ace_s& entry, EntryUse use) override {
    steps_ << " " << entry.trustee.uid << "=" << entry.perm_mask
           << (use == EntryUse::kCounts ? "!" : "");
  }
  void on_masks(uint32_t self, uint32_t parent) override {
    steps_ << " masks:" << self << "," << parent;
  }
  void on_rule(const Needs& needs, uint32_t self, uint32_t parent, bool holds) override {
    EXPECT_EQ(needs.hold(self, parent), holds);
    steps_ << " rule:" << self << "," << parent << (holds ? "+" : "-");
  }
  void on_special_path() override { steps_ << " special"; }
  void on_ground(Ground ground) override {
    ++grounds_;
    ground_ = ground;
  }

 private:
  const void* map_;
  std::ostringstream steps_;
  int grounds_ = 0;
  Ground ground_{};
};

class ObservedDecision : public Share {
 protected:
  static Ruling decide_for(const Caller& caller, e_fsop_type op, const std::string& path,
                           Observer* observer) {
    process_trustees_s trustees = trustees_of(caller);
    Ruling ruling{-1, -1};
    ruling.verdict = decide(kShareRoot.c_str(), (kShareRoot + "/" + path).c_str(), op, &trustees, 0,
                            &ruling.is_nav, observer);
    return ruling;
  }
  static std::string steps_of(const Caller& caller, e_fsop_type op, const std::string& path) {
    Scribe scribe;
    decide_for(caller, op, path, &scribe);
    return scribe.text();
  }
};

TEST_F(ObservedDecision, TellsItsStepsInTheirOrder) {
  EXPECT_EQ(
      "path:Shared/Team/report.txt caller:01 object:1 self:3 parent:3own 1005=7 9010=3 9011=1! "
      "1005=7 9010=3 9011=1! masks:1,1 rule:1,1-",
      steps_of(kBen, FSOP_OPEN_WRITE, "Shared/Team/report.txt"));
  EXPECT_EQ(
      "path:Shared/Team/Docs caller:01 object:2 self:3 parent:3own 1005=7! 9010=3 9011=1 "
      "1005=7! 9010=3 9011=1 masks:7,7 rule:7,7+",
      steps_of(kAnna, FSOP_STAT, "Shared/Team/Docs"));
  EXPECT_EQ("path:Shared/Team caller:00", steps_of(kStandardUser, FSOP_STAT, "Shared/Team"));
  EXPECT_EQ("path:Private/olga caller:01 object:2", steps_of(kPat, FSOP_STAT, "Private/olga"));
}

TEST_F(ObservedDecision, TellsThatARefusalIsOverturned) {
  const std::string steps = steps_of(kPat, FSOP_CREATE, ".DS_Store");
  EXPECT_TRUE(steps.ends_with(" special")) << steps;
  EXPECT_EQ(std::string::npos, steps_of(kPat, FSOP_STAT, "Shared").find("special"));
}

TEST_F(ObservedDecision, EndsOnOneGroundAndWithTheUnobservedVerdict) {
  const std::vector<std::string> paths = {"",
                                          "*",
                                          "Shared",
                                          "Private",
                                          "Other",
                                          "top.txt",
                                          "../x",
                                          "Shared/stray.txt",
                                          "Shared/Team",
                                          "Shared/Team/report.txt",
                                          "Shared/New",
                                          "Shared/Lobby/Inner",
                                          "Shared/Team/none",
                                          "Shared/Closed/a.sb-1",
                                          "Private/pat",
                                          "Private/pat/diary.txt",
                                          "Private/none/x",
                                          "Private/stray.txt",
                                          "Other/below"};
  for (const Caller& caller : all_callers()) {
    for (const e_fsop_type op : operations_with_a_rule()) {
      for (const std::string& path : paths) {
        Scribe scribe;
        EXPECT_EQ(decide_for(caller, op, path, nullptr), decide_for(caller, op, path, &scribe))
            << caller.name << " " << name_of(op) << " " << path;
        EXPECT_EQ(1, scribe.grounds()) << caller.name << " " << name_of(op) << " " << path;
      }
    }
  }
}

TEST_F(ObservedDecision, LooksInTheObserversMap) {
  const Folder team{.name = "Team", .users = {{kBen.uid, 3}}};
  const std::vector<std::byte> image =
      build_image({.name = "/", .children = {{.name = "Shared", .children = {team}}}});
  Scribe scribe(image.data());
  EXPECT_EQ(kGranted, decide_for(kBen, FSOP_OPEN_WRITE, "Shared/Team/report.txt", &scribe));
  EXPECT_EQ(kRefused, decide_for(kBen, FSOP_OPEN_WRITE, "Shared/Team/report.txt", nullptr));
}

TEST_F(ObservedDecision, TellsThatThereIsNoMap) {
  std::filesystem::remove("/etc/tavrix/.permbe_map");
  Scribe scribe;
  EXPECT_EQ(kSystemError, decide_for(kBen, FSOP_STAT, "Shared/Team", &scribe));
  EXPECT_EQ(Ground::kNoMap, scribe.ground());
}

}  // namespace
}  // namespace tavrix::test
