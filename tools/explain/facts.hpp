// SPDX-License-Identifier: LGPL-3.0-or-later
// One decision, as its observer saw it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "permissions/decision/observer.hpp"

namespace tavrix::explain {

// A user or a group.
struct Trustee {
  bool is_user = true;
  uint32_t id = 0;
  bool operator==(const Trustee&) const = default;
};

struct Entry {
  Trustee trustee;
  uint32_t mask = 0;
  EntryUse use = EntryUse::kCounts;
  [[nodiscard]] bool counts() const { return use == EntryUse::kCounts; }
};

// The ACL that governs the object, or its parent. Folders are named relative to the share, the root
// by "/".
struct Governing {
  std::string path;          // the object or the parent
  std::string folder;        // the folder of the map that stands for it
  std::string holder;        // the folder whose entries these are
  bool is_in_map = false;    // the folder is the path itself
  bool is_explicit = false;  // and the entries are its own
  uint32_t mask = 0;
  std::vector<Entry> entries;  // in the order in which they are looked at
};

// The row of the rules that was asked, with the masks it was asked with.
struct Row {
  Needs needs;
  uint32_t self = 0;
  uint32_t parent = 0;
  bool holds = false;
};

struct Facts {
  e_vfs_enforce_perms verdict = TXPERMS_SYSTEM_ERR;
  bool is_only_to_see = false;
  std::string path;                 // relative to the share, in canonical spelling
  std::optional<e_file_type> type;  // nothing: the decision ended before it looked
  std::optional<Ground> ground;     // nothing: it ended for wrong arguments
  bool is_classified = false;       // the next two are known
  bool is_administrator = false;
  bool is_power_user = false;
  bool is_special_path = false;             // a refusal was overturned
  std::optional<Governing> object, parent;  // nothing: the map was not asked
  std::optional<Row> row;

  [[nodiscard]] bool is_granted() const { return verdict == TXPERMS_HAS_PERMS; }
  [[nodiscard]] bool is_refused() const {
    return verdict == TXPERMS_NO_PERM || verdict == TXPERMS_STANDARD_USER;
  }
};

}  // namespace tavrix::explain
