// SPDX-License-Identifier: LGPL-3.0-or-later
// What the decision knows about its caller: the class, and the rights that an ACL gives.
#pragma once

#include <cstdint>

#include "tavrix_perms.h"
#include "tavrix_structs.h"

namespace tavrix {

// Writes the admin and poweruser fields. false when the supplementary groups cannot be searched.
[[nodiscard]] bool classify(process_trustees_s& caller);

// The rights of a caller from a governing ACL.
struct Rights {
  uint32_t mask = 0;
  bool user_found = false;  // an entry of the user itself gave the mask
};

// How the two evaluations of a decision name themselves in the system log.
enum class Subject { kObject, kParent };

// The first entry of the user, and the groups' entries where the user has none or only navigates.
// Navigation never passes down the tree: an inherited entry that carries it does not count.
[[nodiscard]] Rights rights_of(const process_trustees_s& caller, const tavrix_acl_t& acl,
                               Subject subject);

}  // namespace tavrix
