// SPDX-License-Identifier: LGPL-3.0-or-later
#include "utils/reserved_user.hpp"

#include "tavrix_vfs_utils.h"

// The module sets it once; every event reads it.
uid_t reserved_user_uid = static_cast<uid_t>(-1);

void set_reserved_user_uid(uid_t uid) { reserved_user_uid = uid; }

bool tavrix::is_reserved_user(uid_t uid) noexcept { return uid == reserved_user_uid; }
