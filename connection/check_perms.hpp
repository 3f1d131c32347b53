// SPDX-License-Identifier: LGPL-3.0-or-later
// The permission check without its cache.
#pragma once

#include <optional>

#include "permissions/decision/observer.hpp"
#include "tavrix_perms.h"
#include "tavrix_structs.h"

namespace tavrix {

// The verdict on whatever a computer account or the reserved user asks; nothing for other accounts.
[[nodiscard]] std::optional<e_vfs_enforce_perms> verdict_on_account(
    const connection_private_data_s& connection, Observer* observer = nullptr);

// The verdict on a path that was normalized: the reserved user's grant, or the decision's answer.
[[nodiscard]] e_vfs_enforce_perms verdict_on_clean(const char* shareroot, const char* clean,
                                                   e_fsop_type op,
                                                   connection_private_data_s& connection,
                                                   int force_path_type);

// The verdict on any path, as the check gives it when its cache is empty.
[[nodiscard]] e_vfs_enforce_perms verdict_on(const char* shareroot, const char* path,
                                             e_fsop_type op, connection_private_data_s& connection,
                                             int force_path_type);

}  // namespace tavrix
