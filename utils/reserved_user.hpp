// SPDX-License-Identifier: LGPL-3.0-or-later
// The reserved user: the synchronisation's own, whose changes are not recorded.
#pragma once

#include <sys/types.h>

namespace tavrix {

[[nodiscard]] bool is_reserved_user(uid_t uid) noexcept;

}  // namespace tavrix
