// SPDX-License-Identifier: LGPL-3.0-or-later
// The entries of an in-memory ACL in list order: for (tavrix_ace_s& ace : aces_of(acl)).
#pragma once

#include "tavrix_perms.h"

namespace tavrix {

class AceRange {
 public:
  class Iterator {
   public:
    explicit Iterator(oneway_list_elem_s* elem) noexcept : elem_(elem) {}
    // The links are the first field of an entry, so a list element's address is its entry's.
    tavrix_ace_s& operator*() const noexcept { return *reinterpret_cast<tavrix_ace_s*>(elem_); }
    Iterator& operator++() noexcept {
      elem_ = elem_->next_elem;
      return *this;
    }
    bool operator!=(const Iterator& other) const noexcept { return elem_ != other.elem_; }

   private:
    oneway_list_elem_s* elem_;
  };

  explicit AceRange(const tavrix_acl_t& acl) noexcept : first_(acl.ace_list_head.first_elem) {}
  [[nodiscard]] Iterator begin() const noexcept { return Iterator(first_); }
  [[nodiscard]] Iterator end() const noexcept { return Iterator(nullptr); }

 private:
  oneway_list_elem_s* first_;
};

inline AceRange aces_of(const tavrix_acl_t& acl) noexcept { return AceRange(acl); }

}  // namespace tavrix
