// SPDX-License-Identifier: LGPL-3.0-or-later
// The stored form of an in-memory ACL: a beacl_s record, and a beace_s record for each entry.
#pragma once

#include <cstddef>

#include "mkperms_shm.h"
#include "tavrix_perms.h"

namespace tavrix {

[[nodiscard]] inline std::size_t stored_size_of(const tavrix_acl_t& acl) noexcept {
  return sizeof(beacl_s) + std::size_t{acl.num_aces} * sizeof(beace_s);
}

// Writes stored_size_of(acl) bytes at `place`, which may be any address. Aborts on an ACL that has
// no stored form: another version, a trustee that is no user and no group, a wrong count.
void write_stored_acl(const tavrix_acl_t& acl, std::byte* place) noexcept;

}  // namespace tavrix
