// SPDX-License-Identifier: LGPL-3.0-or-later
// The current table, held by a thread beyond one decision.

#include "permissions/map/held_table.hpp"

#include <sys/shm.h>

#include "internal/coarse_clock.hpp"
#include "internal/scoped.hpp"
#include "perm_map.h"
#include "permissions/map/tables.hpp"

namespace tavrix {
void HeldTable::keep_no_longer() noexcept {
  keeps_ = false;
  if (scopes_ == 0) drop();
}

void HeldTable::begin_scope() noexcept {
  if (scopes_++ == 0) is_looked_at_ = false;
}

void HeldTable::end_scope() noexcept {
  if (scopes_ == 0 || --scopes_ > 0) return;
  is_looked_at_ = false;
  if (!keeps_ || !is_known()) drop();
}

void HeldTable::drop() noexcept {
  if (address_ == nullptr) return;
  const ErrnoKeeper keep;
  // The table may be this thread's passing one too, when its segment is not known.
  put_perm_map_addr(address_);
  address_ = nullptr;
  forget_kept_table();
  table_ = {};
  is_looked_at_ = false;
}

// A table is held for the rest of the second in which it was attached. The next attach makes every
// look-up, and so notices what the short look does not: a local copy that was removed, and another
// set under the key.
bool HeldTable::is_still_current() const noexcept {
  if (!is_known() || coarse_seconds() != attached_) return false;
  const int index = index_in_set(set_);
  return index != -1 && segment_of_table(index) == table_.identity.segment;
}

void* HeldTable::current() noexcept {
  if (address_ == nullptr) return nullptr;
  if (is_looked_at_) return address_;
  if (!is_still_current()) {
    drop();
    return nullptr;
  }
  is_looked_at_ = scopes_ > 0;
  return address_;
}

void* HeldTable::attach() noexcept {
  void* table = get_perm_map_addr();
  if (table != nullptr && (keeps_ || scopes_ > 0)) hold(table);
  return table;
}

void HeldTable::hold(void* table) noexcept {
  drop();
  const AttachedTable* known = keep_attached_table(table);
  if (known == nullptr && scopes_ == 0) return;
  address_ = table;
  table_ = known != nullptr ? *known : AttachedTable{};
  set_ = set_of_tables();
  attached_ = coarse_seconds();
  is_looked_at_ = scopes_ > 0;
}

void HeldTable::give_back(void* table) noexcept {
  if (table != address_) put_perm_map_addr(table);
}

CurrentTable::CurrentTable(LazyRoot& root) noexcept
    : held_(held_table.find()), table_(held_ != nullptr ? held_->current() : nullptr) {
  if (table_ != nullptr) return;
  root.become();
  table_ = held_ != nullptr ? held_->attach() : get_perm_map_addr();
}

CurrentTable::~CurrentTable() {
  if (table_ == nullptr) return;
  if (held_ != nullptr) {
    held_->give_back(table_);
  } else {
    put_perm_map_addr(table_);
  }
}

}  // namespace tavrix
