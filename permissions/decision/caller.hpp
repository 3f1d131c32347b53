// SPDX-License-Identifier: LGPL-3.0-or-later
// The caller of a decision: its class, and the rights that an ACL gives it.
#pragma once

#include <cstdint>

#include "tavrix_perms.h"
#include "tavrix_structs.h"

namespace tavrix {

class Observer;

// Writes the caller's admin and poweruser fields. false when its supplementary groups are missing.
[[nodiscard]] bool classify(process_trustees_s& caller);

// The rights that a governing ACL gives a caller.
struct Rights {
  uint32_t mask = 0;
  bool user_found = false;  // the ACL has an entry of the user itself
};

// The object of an evaluation, for its messages: a decision evaluates two ACLs.
enum class Subject { kObject, kParent };

// Takes the first entry of the user, and adds the entries of its groups when there is none, or when
// it has no rights or the right to navigate. Navigation does not pass down the tree: an inherited
// entry with it does not count. `observer` may be null.
[[nodiscard]] Rights rights_of(const process_trustees_s& caller, const tavrix_acl_t& acl,
                               Subject subject, Observer* observer = nullptr);

}  // namespace tavrix
