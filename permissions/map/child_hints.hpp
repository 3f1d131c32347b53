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
    std::memset(static_cast<void*>(sets_), 0, sizeof sets_);
    table_ = table;
  }
  // The offset of the child, or kNone. Rarely that of another parent's or name's child.
  [[nodiscard]] uint32_t find(uint32_t parent, uint32_t hash) const noexcept {
    const uint32_t mark = mark_of(parent, hash);
    const Set& set = sets_[set_of(mark)];
    // No branch: the place of a hint cannot be predicted. Marks are unique in a set.
    uint32_t child = kNone;
    for (unsigned place = 0; place < kPlaces; ++place) {
      child |= set.children[place] & (0 - uint32_t{set.marks[place] == mark});
    }
    return child;
  }
  void remember(uint32_t parent, uint32_t hash, uint32_t child) noexcept {
    const uint32_t mark = mark_of(parent, hash);
    Set& set = sets_[set_of(mark)];
    unsigned place = 0;  // of the hint that goes: the old one of this mark, else the oldest
    while (place < kPlaces - 1 && set.marks[place] != mark) ++place;
    std::memmove(set.marks + 1, set.marks, place * sizeof mark);
    std::memmove(set.children + 1, set.children, place * sizeof child);
    set.marks[0] = mark;
    set.children[0] = child;
  }

 private:
  // A set fills one line of the cache. The newest hint is the first.
  static constexpr unsigned kPlaces = 8;
  struct alignas(64) Set {
    uint32_t marks[kPlaces];
    uint32_t children[kPlaces];
  };
  static_assert(sizeof(Set) == 64);
  // 32,768 hints: some thousand files in different folders, with the folders above them. A set that
  // overflows costs a scan of the siblings.
  static constexpr unsigned kBits = 12;

  // Different for two names of one parent, and for one name of two parents.
  [[nodiscard]] static uint32_t mark_of(uint32_t parent, uint32_t hash) noexcept {
    return parent ^ (hash * 0x85EBCA6BU);
  }
  [[nodiscard]] static uint32_t set_of(uint32_t mark) noexcept {
    return (mark * 0x9E3779B1U) >> (32 - kBits);
  }

  SegmentIdentity table_;
  Set sets_[1U << kBits];
};

}  // namespace tavrix
