// SPDX-License-Identifier: LGPL-3.0-or-later
// The superuser's identity for the length of a scope, given back on every path out.
#pragma once

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "tavrix_utils.h"

namespace tavrix {

// Frees the context too. A process that cannot give root back must not go on: it would serve its
// client as the superuser.
inline void require_unbecome_root(tx_permctx_s* context) noexcept {
  TAVRIX_REQUIRE(tavrix_vfs_unbecome_root(context) == 0, "tavrix_vfs_unbecome_root(perm_ctx) == 0");
}

class [[nodiscard]] RootScope {
 public:
  RootScope() noexcept : context_(tavrix_vfs_become_root()) {}
  ~RootScope() {
    ErrnoKeeper keep;
    if (context_ != nullptr) require_unbecome_root(context_);
  }
  RootScope(const RootScope&) = delete;
  RootScope& operator=(const RootScope&) = delete;
  // false when the switch failed, which has been logged; the identity is what it was.
  [[nodiscard]] explicit operator bool() const noexcept { return context_ != nullptr; }

 private:
  tx_permctx_s* context_;
};

}  // namespace tavrix
