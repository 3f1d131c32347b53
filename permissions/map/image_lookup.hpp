// SPDX-License-Identifier: LGPL-3.0-or-later
// Finds the ACLs of a path and of its parent folder in one walk of a map image.
#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>

#include "mkperms_shm.h"
#include "perm_utils.h"

namespace tavrix {

// The deepest folder of the map on a path. The code is SHM_MEMBE_OK when the folder is the path
// itself, SHM_MEMBE_OK_NAMEREMAPPED when it is an ancestor.
struct FolderMatch {
  uint32_t offset = 0;
  membe_shm_err code = SHM_MEMBE_OK_NAMEREMAPPED;
};
// The matches of a path and of its parent folder.
struct PathMatch {
  FolderMatch self;
  FolderMatch parent;
};

// The folder of the map that stands for a path, and the folder whose ACL governs it: the same, or
// the nearest ancestor that has entries.
struct AclSource {
  FolderMatch match;
  uint32_t holder = 0;
};
struct AclSources {
  AclSource self;
  AclSource parent;
};

struct AclDeleter {
  void operator()(tavrix_acl_t* acl) const noexcept {
    free_ACL(acl);
    std::free(acl);
  }
};
using AclPtr = std::unique_ptr<tavrix_acl_t, AclDeleter>;

// Reads the ACLs that govern a relative path and its parent folder; the parent of a top-level name
// is the root. Returns 0, or 3 as get_tavrix_acl() does. Expects an image that has just been
// attached, where each page costs a fault, and touches only the pages that it needs. `sources`, if
// not null, says where the ACLs come from.
[[nodiscard]] int governing_acls(const void* map, std::string_view path, AclPtr& self,
                                 AclPtr& parent, AclSources* sources = nullptr);

}  // namespace tavrix
