// SPDX-License-Identifier: LGPL-3.0-or-later
// The policy: the masks that allow each operation on each type of object.

#include <algorithm>
#include <cstddef>
#include <span>

#include "internal/assert.hpp"
#include "logging.h"
#include "perm_enforcer.h"

namespace tavrix {
namespace {

constexpr uint32_t kRead = TAVRIX_PERM_MASK_RDONLY;
constexpr uint32_t kReadWrite = TAVRIX_PERM_MASK_RDWR;
constexpr uint32_t kReadWriteDelete = TAVRIX_PERM_MASK_RDWRDEL;
constexpr uint32_t kSeeing =  // one of these bits lets a client see a folder
    TAVRIX_PERM_MASK_RDONLY | TAVRIX_PERM_MASK_NAVIGATE | TAVRIX_PERM_MASK_VIEWER_ONLY;

constexpr bool has_all(uint32_t mask, uint32_t bits) { return (mask & bits) == bits; }
constexpr bool has_any(uint32_t mask, uint32_t bits) { return (mask & bits) != 0; }

enum class Needs {
  kNothing,
  kReadParent,
  kWriteParent,   // read and write
  kDeleteParent,  // read, write and delete
  kReadSelfWriteParent,
  kReadSelfDeleteParent,
  kSeeSelf,
  kSeeSelfAndParent,
  kNoRule,  // callers decide such operations without the map
};

bool holds(Needs needs, uint32_t self, uint32_t parent) {
  switch (needs) {
    case Needs::kNothing:
      return true;
    case Needs::kReadParent:
      return has_all(parent, kRead);
    case Needs::kWriteParent:
      return has_all(parent, kReadWrite);
    case Needs::kDeleteParent:
      return has_all(parent, kReadWriteDelete);
    case Needs::kReadSelfWriteParent:
      return has_all(self, kRead) && has_all(parent, kReadWrite);
    case Needs::kReadSelfDeleteParent:
      return has_all(self, kRead) && has_all(parent, kReadWriteDelete);
    case Needs::kSeeSelf:
      return has_any(self, kSeeing);
    case Needs::kSeeSelfAndParent:
      return has_any(self, kSeeing) && has_any(parent, kSeeing);
    case Needs::kNoRule:
      break;
  }
  // A caller that asks for an operation without a rule has a fault in its code. No answer is safe.
  TAVRIX_REQUIRE(false, "0");
  return false;
}

// The rights that an operation needs, and the messages for both answers. Operators know the
// wording, "preventsdrive" included.
struct Answer {
  Needs needs = Needs::kNothing;
  const char* allow = nullptr;
  const char* deny = nullptr;
};
struct Rule {
  e_fsop_type op;
  Answer answer;
};

constexpr Answer kForAnyPermission{.allow = "Allow op for any permission"};
constexpr Answer kInAllCases{.allow = "Allow op in all cases"};
constexpr Answer kForMissing{.allow = "Allow for non-existent file"};
constexpr Answer kMustRead{Needs::kReadParent, "Allow for Read on parent",
                           "Deny due to no Read on parent"};
constexpr Answer kMustWrite{Needs::kWriteParent, "Allow for Read/Write on parent",
                            "Deny due to no Read/Write on parent"};
constexpr Answer kMustDelete{Needs::kDeleteParent, "Allow for Read/Write/Delete on parent",
                             "Deny due to no Read/Write/Delete on parent"};
constexpr Answer kMustSee{Needs::kSeeSelf, "Allow for Nav on self", "Deny due to no NAV on self"};
constexpr Answer kMustSeeBoth{Needs::kSeeSelfAndParent, "Allow for NAV on self and NAV on parent",
                              "Deny due to no NAV on both self and parent"};
constexpr Answer kMustReadAndWrite{Needs::kReadSelfWriteParent,
                                   "Allow for Read/Write on parent and Read on self",
                                   "Deny due to no Read/Write on parent or Read on self"};
constexpr Answer kMustReadAndDelete{Needs::kReadSelfDeleteParent,
                                    "Allow for Read/Write/Delete on parent and Read on self",
                                    "Deny due to no Read/Write/Delete on parent or Read on self"};
constexpr Answer kHasNoRule{.needs = Needs::kNoRule};

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
     {Needs::kDeleteParent, "Allowed for Read/Write/Delete on parent",
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

}  // namespace
}  // namespace tavrix

e_vfs_enforce_perms enforce_tavrix_permissions(e_fsop_type op, e_file_type type, uint32_t self,
                                               uint32_t parent) {
  TAVRIX_LOG(4, "Checking op %d against path perm %d parent perm %d", static_cast<int>(op),
             static_cast<int>(self), static_cast<int>(parent));
  if (op < FSOP_CREATE || op > FSOP_FGETNTACL) {
    TAVRIX_LOG(0, "ENFORCE_PERMS Invalid argument op %d", static_cast<int>(op));
    return TXPERMS_INVALID_ARGS;
  }
  if (op == FSOP_CHOWN) TAVRIX_LOG(4, "CHOWN op trapped, but code is not in place");

  const tavrix::Answer& answer = tavrix::answer_for(op, type);
  const bool allowed = tavrix::holds(answer.needs, self, parent);
  const char* message = allowed ? answer.allow : answer.deny;
  if (message != nullptr) TAVRIX_LOG(2, "%s", message);
  return allowed ? TXPERMS_HAS_PERMS : TXPERMS_NO_PERM;
}
