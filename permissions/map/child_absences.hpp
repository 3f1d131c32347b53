// SPDX-License-Identifier: LGPL-3.0-or-later
// A cache of names that no child of a folder has, so that a lookup of a file need not scan the
// folders beside it.
//
// A scan that finds nothing leaves a summary of the children's hashes. A name whose hash is not in
// the summary belongs to no child. A hint can be checked against the image; an absence cannot,
// without the scan that it saves. So absences hold for one segment of shared memory: a table never
// changes once it is current, and a new map is a new segment.
#pragma once

#include <cstdint>
#include <cstring>

#include "permissions/map/attached_table.hpp"

namespace tavrix {

class ChildAbsences {
 public:
  static constexpr uint32_t kMostChildren = 96;  // the summary of more children would be full

  class Summary {
   public:
    void add(uint32_t hash) noexcept {
      words_[first_of(hash) / 64] |= 1ULL << (first_of(hash) % 64);
      words_[second_of(hash) / 64] |= 1ULL << (second_of(hash) % 64);
    }
    [[nodiscard]] bool may_hold(uint32_t hash) const noexcept {
      return (words_[first_of(hash) / 64] >> (first_of(hash) % 64) & 1) != 0 &&
             (words_[second_of(hash) / 64] >> (second_of(hash) % 64) & 1) != 0;
    }

   private:
    static constexpr unsigned kBits = 9;  // a summary has 2^9 bits
    [[nodiscard]] static uint32_t first_of(uint32_t hash) noexcept {
      return (hash * 0x9E3779B1U) >> (32 - kBits);
    }
    [[nodiscard]] static uint32_t second_of(uint32_t hash) noexcept {
      return (hash * 0x85EBCA6BU) >> (32 - kBits);
    }
    uint64_t words_[1U << (kBits - 6)] = {};
  };

  // Sets the table that the next calls are about, and forgets another table's absences.
  void use(const SegmentIdentity& table) noexcept {
    if (__builtin_expect(table_ == table, 1)) return;
    for (Entry& entry : entries_) entry.parent = kNoParent;
    table_ = table;
  }
  [[nodiscard]] bool is_nobodys(uint32_t parent, uint32_t hash) const noexcept {
    const Entry& entry = entries_[slot_of(parent)];
    return entry.parent == parent && !entry.hashes.may_hold(hash);
  }
  void remember(uint32_t parent, const Summary& hashes) noexcept {
    entries_[slot_of(parent)] = {parent, hashes};
  }

 private:
  static constexpr uint32_t kNoParent = 0xFFFFFFFFU;  // beyond the offset of any record
  static constexpr unsigned kSlotBits = 8;
  struct Entry {
    uint32_t parent;
    Summary hashes;
  };
  [[nodiscard]] static uint32_t slot_of(uint32_t parent) noexcept {
    return (parent * 0x9E3779B1U) >> (32 - kSlotBits);
  }

  SegmentIdentity table_{};
  Entry entries_[1U << kSlotBits] = {};
};

}  // namespace tavrix
