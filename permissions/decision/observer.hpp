// SPDX-License-Identifier: LGPL-3.0-or-later
// The steps of a decision, told while they happen. tavrixctl explains verdicts with them, so that
// no second implementation of the rules can differ from this one. Servers run a copy of the same
// template that is compiled without an observer.
#pragma once

#include <cstdint>

#include "permissions/decision/caller.hpp"
#include "permissions/map/image_lookup.hpp"
#include "tavrix_perms.h"
#include "tavrix_structs.h"

namespace tavrix {

// The step that ends a decision.
enum class Ground {
  // whoever asks, whatever the path
  kComputerAccount,
  kReservedUser,
  kStandardUser,
  // the path, before the map
  kClimbs,
  kShareRoot,
  kWildcard,
  kFolderToRead,
  // Private
  kFileInPrivate,
  kAdministratorAtUserFolder,  // the rule, with read and read
  kNoUserFolder,
  kAdministratorInPrivate,  // the rule, with everything
  kAnothersUserFolder,
  kOwnUserFolder,  // the rule, with read and read
  kOwnUserFolderChanged,
  kBelowOwnUserFolder,
  // Shared
  kFileInShared,
  kAdministratorInShared,  // the rule, with everything
  kTeamFolder,             // the rule, with the mask on the object and navigate
  kBelowTeamFolder,        // the rule, with both masks
  // the top level
  kOutside,
  kFileAtTop,
  kPrivateItself,  // the rule, with read and read
  kPrivateItselfClosed,
  kSharedItself,  // the rule, with read and read
  kTopItself,     // the rule, with read and read
  kUnknownAtTop,
  // failures
  kNoMemory,
  kBadShareRoot,
  kBadGroups,
  kNoLook,  // at the object, or at the user's folder
  kNoMap,
  kNoAcl,
};

// The use of an entry of an ACL for the caller's mask.
enum class EntryUse {
  kCounts,
  kAnotherUser,
  kNotAMember,
  kInheritedNavigation,  // navigation does not pass down the tree
  kLaterEntry,           // an earlier entry of the same user counts
  kSilenced,             // an entry of a group, while the user's own entry decides
};

// The rights that a row of the rules asks for: all of some bits, and one of others (0: of none).
struct Needs {
  uint32_t self_all = 0;
  uint32_t self_any = 0;
  uint32_t parent_all = 0;
  uint32_t parent_any = 0;

  [[nodiscard]] constexpr bool hold(uint32_t self, uint32_t parent) const {
    return hold_for(self, self_all, self_any) && hold_for(parent, parent_all, parent_any);
  }

 private:
  static constexpr bool hold_for(uint32_t mask, uint32_t all, uint32_t any) {
    return (mask & all) == all && (any == 0 || (mask & any) != 0);
  }
};

class Observer {
 public:
  // An image to look in instead of the current table, for questions about another map; null for the
  // current table. Its size is not known, so it must be sound.
  [[nodiscard]] virtual const void* other_map() { return nullptr; }

  // The path relative to the share root, in its canonical spelling.
  virtual void on_path(const char* path) = 0;
  // The caller's class is known: its fields admin and poweruser are written.
  virtual void on_caller(const process_trustees_s& caller) = 0;
  virtual void on_object(e_file_type type) = 0;
  // The governing ACL of the object or of its parent. The image is attached during the call.
  virtual void on_acl(Subject subject, const void* map, const AclSource& source,
                      const tavrix_acl_t& acl) = 0;
  // An entry of that ACL, once each.
  virtual void on_entry(Subject subject, const tavrix_ace_s& entry, EntryUse use) = 0;
  // The masks on the object and on its parent, from the map.
  virtual void on_masks(uint32_t self, uint32_t parent) = 0;
  // The row of the rules, asked with these masks, which are not always those from the map.
  virtual void on_rule(const Needs& needs, uint32_t self, uint32_t parent, bool holds) = 0;
  // A refusal became a grant, because the path is special.
  virtual void on_special_path() = 0;
  // The last step.
  virtual void on_ground(Ground ground) = 0;

 protected:
  Observer() = default;
  ~Observer() = default;
  Observer(const Observer&) = default;
  Observer& operator=(const Observer&) = default;
};

}  // namespace tavrix
