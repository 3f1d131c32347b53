// SPDX-License-Identifier: LGPL-3.0-or-later
// The policy: the masks that allow each operation on each type of object.

#include <algorithm>
#include <cstddef>
#include <span>

#include "internal/assert.hpp"
#include "logging.h"
#include "perm_enforcer.h"
#include "permissions/decision/decision.hpp"

namespace tavrix {
namespace {

constexpr uint32_t kRead = TAVRIX_PERM_MASK_RDONLY;
constexpr uint32_t kReadWrite = TAVRIX_PERM_MASK_RDWR;
constexpr uint32_t kReadWriteDelete = TAVRIX_PERM_MASK_RDWRDEL;
constexpr uint32_t kSeeing =  // one of these bits lets a client see a folder
    TAVRIX_PERM_MASK_RDONLY | TAVRIX_PERM_MASK_NAVIGATE | TAVRIX_PERM_MASK_VIEWER_ONLY;

constexpr Needs kReadParent{.parent_all = kRead};
constexpr Needs kWriteParent{.parent_all = kReadWrite};
constexpr Needs kDeleteParent{.parent_all = kReadWriteDelete};
constexpr Needs kReadSelfWriteParent{.self_all = kRead, .parent_all = kReadWrite};
constexpr Needs kReadSelfDeleteParent{.self_all = kRead, .parent_all = kReadWriteDelete};
constexpr Needs kSeeSelf{.self_any = kSeeing};
constexpr Needs kSeeSelfAndParent{.self_any = kSeeing, .parent_any = kSeeing};

// The rights that an operation needs, and the messages for both answers. Operators know the
// wording, "preventsdrive" included.
struct Answer {
  Needs needs{};
  const char* allow = nullptr;
  const char* deny = nullptr;
  bool has_rule = true;  // false: callers decide such operations without the map
};
struct Rule {
  e_fsop_type op;
  Answer answer;
};

constexpr Answer kForAnyPermission{.allow = "Allow op for any permission"};
constexpr Answer kInAllCases{.allow = "Allow op in all cases"};
constexpr Answer kForMissing{.allow = "Allow for non-existent file"};
constexpr Answer kMustRead{kReadParent, "Allow for Read on parent",
                           "Deny due to no Read on parent"};
constexpr Answer kMustWrite{kWriteParent, "Allow for Read/Write on parent",
                            "Deny due to no Read/Write on parent"};
constexpr Answer kMustDelete{kDeleteParent, "Allow for Read/Write/Delete on parent",
                             "Deny due to no Read/Write/Delete on parent"};
constexpr Answer kMustSee{kSeeSelf, "Allow for Nav on self", "Deny due to no NAV on self"};
constexpr Answer kMustSeeBoth{kSeeSelfAndParent, "Allow for NAV on self and NAV on parent",
                              "Deny due to no NAV on both self and parent"};
constexpr Answer kMustReadAndWrite{kReadSelfWriteParent,
                                   "Allow for Read/Write on parent and Read on self",
                                   "Deny due to no Read/Write on parent or Read on self"};
constexpr Answer kMustReadAndDelete{kReadSelfDeleteParent,
                                    "Allow for Read/Write/Delete on parent and Read on self",
                                    "Deny due to no Read/Write/Delete on parent or Read on self"};
constexpr Answer kHasNoRule{.has_rule = false};

// --- objects of any type -----------------------------------------------------------------------
constexpr Rule kAnyTypeRules[] = {
    {FSOP_CREATE, kMustWrite},    {FSOP_MKDIR, kMustWrite},     {FSOP_OPEN_CHATTR, {}},
    {FSOP_CHOWN, kHasNoRule},     {FSOP_CHMOD, kHasNoRule},     {FSOP_SET_ACL, kHasNoRule},
    {FSOP_GET_ACL, kHasNoRule},   {FSOP_READ_LINK, kHasNoRule}, {FSOP_CONNECT, kHasNoRule},
    {FSOP_STATVFS, kHasNoRule},   {FSOP_SEEKDIR, kHasNoRule},   {FSOP_REWINDDIR, kHasNoRule},
    {FSOP_TELLDIR, kHasNoRule},   {FSOP_REALPATH, kHasNoRule},  {FSOP_GETNTACL, kHasNoRule},
    {FSOP_FGETNTACL, kHasNoRule},
};

// --- folders -----------------------------------------------------------------------------------
// Everybody may open a folder for writing, because clients map the share that way, and may unlink a
// folder handle, because FSOP_RMDIR decides about removing the folder.
constexpr Rule kFolderRules[] = {
    {FSOP_OPEN_READ, kForAnyPermission},
    {FSOP_UNLINK, kForAnyPermission},
    {FSOP_OPEN_WRITE,
     {.allow = "FSOP_OPEN_WRITE allowed for any user as otherwise it preventsdrive being mapped"}},
    {FSOP_OPENDIR, kMustSee},
    {FSOP_READDIR, kMustSee},
    {FSOP_CHDIR, kMustSee},
    {FSOP_RENAME_SRC, kMustReadAndDelete},
    {FSOP_MOVE_SRC, kMustReadAndDelete},
    {FSOP_RENAME_DEST, kMustReadAndWrite},
    {FSOP_MOVE_DEST, kMustReadAndWrite},
    {FSOP_STAT, kMustSeeBoth},
    {FSOP_LSTAT, kMustSeeBoth},
    {FSOP_RMDIR,
     {kDeleteParent, "Allowed for Read/Write/Delete on parent",
      "Deny due to no Read/Write/Delete on parent op=21"}},
};

// --- files, judged by their folder alone -------------------------------------------------------
// Renaming a file inside its folder needs read and write; moving it out needs delete as well.
constexpr Rule kFileRules[] = {
    {FSOP_OPEN_READ, kMustRead},       {FSOP_STAT, kMustRead},
    {FSOP_LSTAT, kMustRead},           {FSOP_OPEN_WRITE, kMustWrite},
    {FSOP_RENAME_SRC, kMustWrite},     {FSOP_RENAME_DEST, kMustWrite},
    {FSOP_MOVE_DEST, kMustWrite},      {FSOP_OPENDIR, kForAnyPermission},
    {FSOP_READDIR, kForAnyPermission}, {FSOP_RMDIR, kForAnyPermission},
    {FSOP_CHDIR, kForAnyPermission},   {FSOP_UNLINK, kMustDelete},
    {FSOP_MOVE_SRC, kMustDelete},
};

// --- objects that do not exist -----------------------------------------------------------------
constexpr Rule kMissingRules[] = {
    {FSOP_OPEN_WRITE, kMustWrite},
    {FSOP_RENAME_DEST, kMustWrite},
    {FSOP_MOVE_DEST, kMustWrite},
};

const Answer* find_answer(std::span<const Rule> rules, e_fsop_type op) {
  const auto rule = std::ranges::find(rules, op, &Rule::op);
  return rule == rules.end() ? nullptr : &rule->answer;
}

const Answer& answer_for_type(e_fsop_type op, e_file_type type) {
  const Answer* answer = nullptr;
  switch (type) {
    case FSTYPE_FOLDER:
      TAVRIX_LOG(4, "Checking permission for folder type");
      answer = find_answer(kFolderRules, op);
      return answer != nullptr ? *answer : kInAllCases;
    case FSTYPE_FILE:
      TAVRIX_LOG(4, "Checking permission for file type");
      answer = find_answer(kFileRules, op);
      return answer != nullptr ? *answer : kInAllCases;
    default:
      answer = find_answer(kMissingRules, op);
      return answer != nullptr ? *answer : kForMissing;
  }
}

const Answer& answer_for(e_fsop_type op, e_file_type type) {
  const Answer* answer = find_answer(kAnyTypeRules, op);
  return answer != nullptr ? *answer : answer_for_type(op, type);
}

// Both kinds of look at the rules. Its messages carry its name, which is the exported function's.
template <bool kIsObserved>
e_vfs_enforce_perms enforce_tavrix_permissions(e_fsop_type op, e_file_type type, uint32_t self,
                                               uint32_t parent, Observer* observer) {
  TAVRIX_LOG(4, "Checking op %d against path perm %d parent perm %d", static_cast<int>(op),
             static_cast<int>(self), static_cast<int>(parent));
  if (op < FSOP_CREATE || op > FSOP_FGETNTACL) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Invalid argument op %d", static_cast<int>(op));
    return TXPERMS_INVALID_ARGS;
  }
  if (op == FSOP_CHOWN) TAVRIX_LOG(4, "CHOWN op trapped, but code is not in place");

  const Answer& answer = answer_for(op, type);
  // A caller that asks for an operation without a rule has a fault in its code. No answer is safe.
  TAVRIX_REQUIRE(answer.has_rule, "0");
  const bool allowed = answer.needs.hold(self, parent);
  if constexpr (kIsObserved) observer->on_rule(answer.needs, self, parent, allowed);
  const char* message = allowed ? answer.allow : answer.deny;
  if (message != nullptr) TAVRIX_LOG(2, "%s", message);
  return allowed ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM;
}

}  // namespace

e_vfs_enforce_perms ask_rule(e_fsop_type op, e_file_type type, uint32_t self, uint32_t parent,
                             Observer* observer) {
  return enforce_tavrix_permissions<true>(op, type, self, parent, observer);
}

}  // namespace tavrix

e_vfs_enforce_perms enforce_tavrix_permissions(e_fsop_type op, e_file_type type, uint32_t self,
                                               uint32_t parent) {
  return tavrix::enforce_tavrix_permissions<false>(op, type, self, parent, nullptr);
}
