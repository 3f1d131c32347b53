// SPDX-License-Identifier: LGPL-3.0-or-later
// The user whose changes are not recorded: the synchronisation's own. Set once by the module, read
// by the events.

#include "tavrix_vfs_utils.h"

uid_t reserved_user_uid = static_cast<uid_t>(-1);

void set_reserved_user_uid(uid_t uid) { reserved_user_uid = uid; }
