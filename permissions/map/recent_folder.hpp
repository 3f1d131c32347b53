// SPDX-License-Identifier: LGPL-3.0-or-later
// The folder that a thread's last decision walked to: the next question is usually about the same
// folder, or about another of its entries.
//
// Holds for one segment of shared memory. A table never changes once it is current, so the same
// walk would end at the same folder.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "permissions/map/attached_table.hpp"
#include "permissions/map/image_lookup.hpp"

namespace tavrix {

class RecentFolder {
 public:
  // Sets the table that the next calls are about, and forgets another table's folder.
  void use(const SegmentIdentity& table) noexcept {
    if (__builtin_expect(table_ == table, 1)) return;
    length_ = 0;
    table_ = table;
  }
  // The match of the path; null when another path was remembered.
  [[nodiscard]] const FolderMatch* find(std::string_view path) const noexcept {
    const bool is_same =
        !path.empty() && path.size() == length_ && std::memcmp(path.data(), path_, length_) == 0;
    return is_same ? &match_ : nullptr;
  }
  void remember(std::string_view path, const FolderMatch& match) noexcept {
    length_ = path.size() <= sizeof path_ ? path.size() : 0;
    std::memcpy(path_, path.data(), length_);
    match_ = match;
  }

 private:
  SegmentIdentity table_{};
  FolderMatch match_;
  std::size_t length_ = 0;  // 0: none is remembered
  char path_[1024] = {};
};

}  // namespace tavrix
