// The superuser's identity for the length of a scope, given back on every path out.
#pragma once

#include "internal/scoped.hpp"
#include "tavrix_utils.h"

namespace tavrix {

class [[nodiscard]] RootScope {
 public:
  RootScope() noexcept : context_(tavrix_vfs_become_root()) {}
  ~RootScope() {
    ErrnoKeeper keep;
    if (context_ != nullptr) static_cast<void>(tavrix_vfs_unbecome_root(context_));
  }
  RootScope(const RootScope&) = delete;
  RootScope& operator=(const RootScope&) = delete;
  // false when the switch failed, which has been logged; the identity is what it was.
  [[nodiscard]] explicit operator bool() const noexcept { return context_ != nullptr; }

 private:
  tx_permctx_s* context_;
};

}  // namespace tavrix
