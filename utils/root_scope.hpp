// SPDX-License-Identifier: LGPL-3.0-or-later
// The ways to become root. The identity is the whole process's, and each way gives back exactly
// what was there.
//
//   way             where                               user ids         group      nests
//   RootScope       staging buffer, its flush, audit    real, effective  stays      yes
//                   buffer, stamps
//   RootInHook      hooks, for a look at a file         real, effective  stays      yes
//   stay_root       hooks, for the operation itself     real, effective  stays      (1)
//   LazyRoot        the decision, scopes of decisions   effective        effective  in a scope
//   TAVRIX_AS_ROOT  the module (samba/identity.c),      real, effective  effective  yes
//                   around a whole request
//
// (1) Not a scope: the module gives root back after the operation, from the context in its slot.
//     A process that is root already leaves the slot null.
//
// The saved user id always stays: it is the way back. The decision switches the group too because
// _change_id(), its exported switch, promises that; the module does, so that the decision finds
// nothing left to change. Everything else needs only the user ids.
//
// Failing to become root is an answer: the first three say so, and the decision goes on as the
// client and meets the file system's refusal. Failing to give root back ends the process: it would
// serve its client as the superuser.
#pragma once

#include <unistd.h>
#include <cstdlib>

#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "perm_enforcer.h"
#include "tavrix_utils.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {

// Gives root back and frees the context.
inline void require_unbecome_root(tx_permctx_s* context) noexcept {
  TAVRIX_REQUIRE(tavrix_vfs_unbecome_root(context) == 0, "tavrix_vfs_unbecome_root(perm_ctx) == 0");
}

// Root for the length of a scope. errno survives the way back. A process that is root already asks
// for its ids and does nothing else.
class [[nodiscard]] RootScope {
 public:
  RootScope() noexcept : context_(tavrix_vfs_become_root()) {}
  ~RootScope() {
    const ErrnoKeeper keep;
    if (context_ == nullptr) return;
    if (context_->effective_uid != 0) {
      require_unbecome_root(context_);
    } else {
      std::free(context_);
    }
  }
  RootScope(const RootScope&) = delete;
  RootScope& operator=(const RootScope&) = delete;
  // false when the switch failed, which has been logged; the identity is what it was.
  [[nodiscard]] explicit operator bool() const noexcept { return context_ != nullptr; }

 private:
  tx_permctx_s* context_;
};

// Root for the length of a scope within a hook, with the context in the module's slot. The module
// may be root already: then nothing is switched, and nothing given back.
class [[nodiscard]] RootInHook {
 public:
  explicit RootInHook(tx_perm_ctx_t** slot) noexcept
      : slot_(slot),
        was_root_(geteuid() == 0),
        is_root_(was_root_ || raise_permissions(slot) == 1) {}
  ~RootInHook() {
    if (was_root_ || !is_root_) return;
    const ErrnoKeeper keep;
    require_unbecome_root(*slot_);
    *slot_ = nullptr;
  }
  RootInHook(const RootInHook&) = delete;
  RootInHook& operator=(const RootInHook&) = delete;

  [[nodiscard]] explicit operator bool() const noexcept { return is_root_; }

 private:
  tx_perm_ctx_t** slot_;
  bool was_root_;
  bool is_root_;
};

// Root that stays after the hook, for the operation itself. false with errno EACCES when root
// cannot be had.
[[nodiscard]] inline bool stay_root(tx_perm_ctx_t** slot) noexcept {
  return raise_permissions(slot) == 1;
}

// Root with the group, from the first become() to the end of the decision, or of the scope of
// decisions that it is in. A decision that needs no privilege changes nothing. errno survives the
// way back.
class [[nodiscard]] LazyRoot {
 public:
  LazyRoot() noexcept = default;
  ~LazyRoot() {
    if (is_root_) give_back();
  }
  LazyRoot(const LazyRoot&) = delete;
  LazyRoot& operator=(const LazyRoot&) = delete;

  void become() noexcept {
    if (is_root_ || decision_scopes.is_root) return;
    _change_id(TAVRIX_CHANGE_ID_ROOT);
    (decision_scopes.open > 0 ? decision_scopes.is_root : is_root_) = true;
  }

  // Scopes of decisions nest. An end without a beginning changes nothing: the count must not wrap,
  // or no later decision would give root back.
  static void begin_scope() noexcept { ++decision_scopes.open; }
  static void end_scope() noexcept {
    if (decision_scopes.open == 0 || --decision_scopes.open > 0) return;
    if (!decision_scopes.is_root) return;
    decision_scopes.is_root = false;
    give_back();
  }

 private:
  static void give_back() noexcept {
    const ErrnoKeeper keep;
    _change_id(TAVRIX_CHANGE_ID_BACK);
  }
  // The identity is the whole process's, and so is this.
  struct Scopes {
    unsigned open;
    bool is_root;
  };
  static inline Scopes decision_scopes{};

  bool is_root_ = false;
};

}  // namespace tavrix
