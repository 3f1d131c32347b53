// SPDX-License-Identifier: LGPL-3.0-or-later
// The decision and the rule as vfs_enforce_perms() and enforce_tavrix_permissions() make them, with
// an observer of the steps.
#pragma once

#include "permissions/decision/observer.hpp"

namespace tavrix {

// The observer may be null.
[[nodiscard]] e_vfs_enforce_perms decide(const char* share_root, const char* in_path,
                                         e_fsop_type op, process_trustees_s* in_pts,
                                         int force_path_type, int* is_nav, Observer* observer);

// The rule as enforce_tavrix_permissions() asks it. The observer must not be null.
[[nodiscard]] e_vfs_enforce_perms ask_rule(e_fsop_type op, e_file_type type, uint32_t self,
                                           uint32_t parent, Observer* observer);

}  // namespace tavrix
