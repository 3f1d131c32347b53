// SPDX-License-Identifier: LGPL-3.0-or-later
// A cache of the places where lookups found the children of folders.
//
// A hint says where to look first. The folder found there must have the wanted parent and name, or
// the list is scanned. A hint saves the walk over the siblings, the most expensive part of a cold
// decision: each sibling may lie on two pages of its own. Hints hold for one segment of shared
// memory: names are compared without case, so in another map another child of that name may come
// first.
#pragma once

#include <cstdint>
#include <cstring>

#include "permissions/map/attached_table.hpp"

namespace tavrix {

class ChildHints {
 public:
  static constexpr uint32_t kNone = 0;  // the root's offset, which is never a child's

  // Sets the table that the next calls are about, and forgets another table's hints.
  void use(const SegmentIdentity& table) noexcept {
    if (__builtin_expect(table_ == table, 1)) return;
    std::memset(pairs_, 0, sizeof pairs_);
    table_ = table;
  }
  // The offset of the child, or kNone.
  [[nodiscard]] uint32_t find(uint32_t parent, uint32_t hash) const noexcept {
    const Pair& pair = pairs_[slot_of(parent, hash)];
    if (pair.newer.parent == parent && pair.newer.hash == hash) return pair.newer.child;
    if (pair.older.parent == parent && pair.older.hash == hash) return pair.older.child;
    return kNone;
  }
  void remember(uint32_t parent, uint32_t hash, uint32_t child) noexcept {
    Pair& pair = pairs_[slot_of(parent, hash)];
    pair.older = pair.newer;
    pair.newer = {parent, hash, child};
  }

 private:
  struct Hint {
    uint32_t parent;
    uint32_t hash;
    uint32_t child;
  };
  struct Pair {
    Hint newer, older;
  };
  // Room for the folders that one client works in; a process touches few pages of these.
  static constexpr unsigned kBits = 13;

  [[nodiscard]] static uint32_t slot_of(uint32_t parent, uint32_t hash) noexcept {
    return ((parent ^ (hash * 0x85EBCA6BU)) * 0x9E3779B1U) >> (32 - kBits);
  }

  SegmentIdentity table_;
  Pair pairs_[1U << kBits];
};

}  // namespace tavrix
