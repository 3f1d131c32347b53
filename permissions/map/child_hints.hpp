// SPDX-License-Identifier: LGPL-3.0-or-later
// Where a lookup found the children of folders before, so that it need not scan for them again.
//
// A hint only says where to look first: the folder found there must have the parent and the name
// that are asked for, or the list is scanned. What a hint saves is the walk over the siblings,
// which is what a cold decision pays for: each of them may lie on two pages of its own. Hints hold
// for one segment of shared memory only: in another map another child may come first that bears the
// name too, for names are compared without case.
#pragma once

#include <cstdint>
#include <cstring>

#include "permissions/map/attached_table.hpp"

namespace tavrix {

class ChildHints {
 public:
  static constexpr uint32_t kNone = 0;  // the root is nobody's child

  // Names the table that the next calls are about.
  void use(const SegmentIdentity& table) noexcept {
    if (__builtin_expect(table_ == table, 1)) return;
    std::memset(pairs_, 0, sizeof pairs_);
    table_ = table;
  }
  // The offset of a folder, or kNone.
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
  // The folders that one client works in: a server process touches few pages of the table.
  static constexpr unsigned kBits = 13;

  [[nodiscard]] static uint32_t slot_of(uint32_t parent, uint32_t hash) noexcept {
    return ((parent ^ (hash * 0x85EBCA6BU)) * 0x9E3779B1U) >> (32 - kBits);
  }

  SegmentIdentity table_;
  Pair pairs_[1U << kBits];
};

}  // namespace tavrix
