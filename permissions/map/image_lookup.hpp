// SPDX-License-Identifier: LGPL-3.0-or-later
// One walk of a map image for a path and its parent folder at once.
#pragma once

#include <cstdlib>
#include <memory>
#include <string_view>

#include "mkperms_shm.h"
#include "perm_utils.h"

namespace tavrix {

// The deepest folder of the map on a path, and on its parent: the folder's offset, and SHM_MEMBE_OK
// when it is the path itself or SHM_MEMBE_OK_NAMEREMAPPED when it is an ancestor.
struct FolderMatch {
  uint32_t offset = 0;
  membe_shm_err code = SHM_MEMBE_OK_NAMEREMAPPED;
};
struct PathMatch {
  FolderMatch self;
  FolderMatch parent;
};

struct AclDeleter {
  void operator()(tavrix_acl_t* acl) const noexcept {
    free_ACL(acl);
    std::free(acl);
  }
};
using AclPtr = std::unique_ptr<tavrix_acl_t, AclDeleter>;

// The ACLs that govern a relative path and its parent folder; the parent of a top-level name is the
// root. 0, or 3 as get_tavrix_acl() gives it. The image has just been attached: only what decides
// is touched, for every page costs a fault.
[[nodiscard]] int governing_acls(void* map, std::string_view path, AclPtr& self, AclPtr& parent);

}  // namespace tavrix
