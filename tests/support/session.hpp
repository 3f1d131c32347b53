// SPDX-License-Identifier: LGPL-3.0-or-later
// A client's session, as a module plays it for the hooks: a share with a map, real users, a staging
// buffer, and calls whose every effect on the process is checked.
#pragma once

#include <sys/xattr.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "processing_functions.h"
#include "tavrix_vfs_utils.h"
#include "tests/support/event_store.hpp"
#include "tests/support/fail_call.hpp"
#include "tests/support/files.hpp"
#include "tests/support/group_map.hpp"
#include "tests/support/log_capture.hpp"
#include "tests/support/share.hpp"
#include "vfs_common.h"

namespace tavrix::test {

struct Answer {
  int result;
  int error;  // errno; 0 with result 0
  bool operator==(const Answer&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  return out << answer.result << " " << (answer.error == 0 ? "" : std::strerror(answer.error));
}
constexpr Answer kProceed{0, 0};
constexpr Answer kRefusedAccess{-1, EACCES};
constexpr Answer kNotPermitted{-1, EPERM};
constexpr Answer kNoName{-1, ENOMEM};

// The question of a hook to the decision, from the trace of its first step.
struct Question {
  int op = 0;
  std::string path;
  bool operator==(const Question&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Question& question) {
  return out << "op " << question.op << " on " << question.path;
}
inline std::vector<Question> questions() {
  std::vector<Question> asked;
  for (const std::string& text : messages()) {
    Question question;
    if (std::sscanf(text.c_str(), "ENFORCE_PERMS op=(%d)", &question.op) != 1) continue;
    const auto from = text.find("path=(") + 6;
    question.path = text.substr(from, text.find(") pid=(") - from);
    asked.push_back(question);
  }
  return asked;
}

// The record of a connection, made for a caller whose process this is.
class Session {
 public:
  explicit Session(const Caller& caller)
      : caller_(caller), record_(std::make_unique<connection_private_data_s>()) {
    record_->user_name_as_passed_in = caller_.name.data();
    record_->refresh_creds = {.permmap_refresh = std::time(nullptr),
                              .groupmap_refresh = std::time(nullptr),
                              .euid = caller_.uid,
                              .tlb_owner = caller_.uid};
    record_->groupmap = trustees_of(caller_);
    // The state after a first decision about this caller.
    record_->groupmap.admin = caller_.uid == kAdministrator.uid ? 1 : 0;
    init_tlb(&record_->vfs_table_cache);
  }
  ~Session() { destroy_tlb(&record_->vfs_table_cache); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  connection_private_data_s* get() { return record_.get(); }
  connection_private_data_s* operator->() { return record_.get(); }
  tx_perm_ctx_t** slot() { return &ctx_; }

  // Calls a hook and checks what every hook owes the process: on 0 it is root, unless the hook
  // never leaves it so, and giving that back restores everything; on -1 nothing has changed.
  enum class Root { kKept, kNotKept };
  template <typename Hook>
  Answer call(Hook hook, Root root = Root::kKept) {
    const Footprint before = footprint_now();
    const auto asked_before = live_allocations();
    errno = 0;
    Answer answer{hook(), 0};
    if (answer.result != 0) answer.error = errno;
    const bool was_root = before.ids.e == 0;
    if (answer.result == 0 && root == Root::kKept && !was_root) {
      EXPECT_EQ(0U, geteuid()) << "the operation needs root";
      EXPECT_NE(nullptr, ctx_);
      EXPECT_EQ(0, tavrix_vfs_unbecome_root(ctx_));
      ctx_ = nullptr;
    }
    EXPECT_EQ(nullptr, ctx_) << "a context was left in the slot";
    left_ = live_allocations() - asked_before;
    const Footprint after = footprint_now();
    EXPECT_TRUE(before.ids == after.ids) << "the identity changed";
    EXPECT_EQ(before.groups, after.groups);
    EXPECT_EQ(before.segments, after.segments) << "segments left attached";
    return answer;
  }
  // Blocks that the last call left on the heap.
  [[nodiscard]] long blocks_left() const { return left_; }

 private:
  Caller caller_;
  std::unique_ptr<connection_private_data_s> record_;
  tx_perm_ctx_t* ctx_ = nullptr;
  long left_ = 0;
};

// The least debug level that shows "function(number)tail": some messages name their source line.
inline int level_of_line_in(const std::string& function, const std::string& tail,
                            const std::function<void()>& action) {
  for (int level = -1; level <= 12; ++level) {
    set_debug_level(level);
    clear_log();
    action();
    set_debug_level(-1);
    for (const std::string& text : messages()) {
      const auto close = text.find(')');
      if (text.starts_with(function + "(") && close != std::string::npos &&
          std::atoi(text.c_str() + function.size() + 1) > 0 && text.substr(close + 1) == tail) {
        return level;
      }
    }
  }
  return kNever;
}

class Hooks : public Share {
 protected:
  void SetUp() override {
    Share::SetUp();
    make_event_store();
    write_passwd();
    write_group_map();
    write_file("/etc/tavrix/permission_refresh", "");
  }

  // Users of this world, by their names and ids; the machine's own stay.
  static void write_passwd() {
    std::string text = read_file("/etc/passwd");
    for (const Caller& caller : all_callers()) {
      text += caller.name + ":x:" + std::to_string(caller.uid) + ":" + std::to_string(caller.gid) +
              "::/:/bin/false\n";
    }
    text += "pc7$:x:1007:" + std::to_string(kPeople) + "::/:/bin/false\n";
    remove_all("/etc/passwd");  // the link
    write_file("/etc/passwd", text);
  }
  static void write_group_map() {
    GroupMap map{{{"tavrix-admins", kAdmins}, {"tavrix-powerusers", kPowerUsers}}, {}};
    for (const Caller& caller : all_callers()) map.users.push_back({caller.name, caller.groups});
    map.users.push_back({"pc7$", kAnna.groups});
    write_file("/scratch/groups", group_map_bytes(map));
    ASSERT_EQ(0, rename("/scratch/groups", "/etc/tavrix/groupmap_refresh"));
  }
  static std::string full(const std::string& name) { return kShareRoot + "/" + name; }
  static void mark_fixed(const std::string& name, const std::string& value = "") {
    ASSERT_EQ(
        0, setxattr(full(name).c_str(), "user.tavrix.fixed_folder", value.data(), value.size(), 0));
  }
  static std::string stamp_of(const std::string& name) {
    char value[256] = "";
    const ssize_t size =
        getxattr(full(name).c_str(), "user.tavrix.last_smb_accessed_by", value, sizeof value);
    return size < 0 ? "(none)" : std::string(value, static_cast<std::size_t>(size));
  }
  // The action's questions to the decision, from its first message, which level 2 shows.
  template <typename Action>
  static std::vector<Question> asked_by(Action action) {
    set_debug_level(2);
    clear_log();
    action();
    set_debug_level(-1);
    return questions();
  }
};

}  // namespace tavrix::test
