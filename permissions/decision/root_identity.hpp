// SPDX-License-Identifier: LGPL-3.0-or-later
// The superuser's identity for the length of a scope, as the decision takes it on.
#pragma once

#include "internal/scoped.hpp"
#include "perm_enforcer.h"

namespace tavrix {

// Does not nest, as _change_id() does not. Gives back the identity on every path out, and keeps
// errno over it.
class RootIdentity {
 public:
  RootIdentity() noexcept { _change_id(TAVRIX_CHANGE_ID_ROOT); }
  ~RootIdentity() {
    ErrnoKeeper keep;
    _change_id(TAVRIX_CHANGE_ID_BACK);
  }
  RootIdentity(const RootIdentity&) = delete;
  RootIdentity& operator=(const RootIdentity&) = delete;
};

}  // namespace tavrix
