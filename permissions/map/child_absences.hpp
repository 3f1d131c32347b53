// SPDX-License-Identifier: LGPL-3.0-or-later
// Which names the children of a folder do not bear, so that a lookup of a file need not scan the
// folders beside it.
//
// A name can only be a child's whose hash is the same. After a scan that found nothing, a summary
// of the hashes stays: a name whose hash is not in it is nobody's. Unlike a hint, that cannot be
// checked against the image without touching what it saves, so it holds for one segment of shared
// memory only: a table is never changed once it is current, and a new map is a new segment.
#pragma once

#include <cstdint>
#include <cstring>

#include "permissions/map/attached_table.hpp"

namespace tavrix {

class ChildAbsences {
 public:
  static constexpr uint32_t kMostChildren = 96;  // a summary of more would be full

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
    static constexpr unsigned kBits = 9;  // of the number of a bit
    [[nodiscard]] static uint32_t first_of(uint32_t hash) noexcept {
      return (hash * 0x9E3779B1U) >> (32 - kBits);
    }
    [[nodiscard]] static uint32_t second_of(uint32_t hash) noexcept {
      return (hash * 0x85EBCA6BU) >> (32 - kBits);
    }
    uint64_t words_[1U << (kBits - 6)] = {};
  };

  // Names the table that the next calls are about.
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
  static constexpr uint32_t kNoParent = 0xFFFFFFFFU;  // no offset: records do not reach so far
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
