// SPDX-License-Identifier: LGPL-3.0-or-later
// The current table, held by a thread beyond one decision: for a scope, or between the calls of a
// session.
//
// A held table is used again only after a look at the tables: the index of the set is read, and
// the segment of that table is looked up. The kernel gives an id to no other segment while one
// bears it, and an attached segment bears its id. So the same id means the same table, and a table
// never changes once it is current. Within a scope the first look is enough.
#pragma once

#include <ctime>

#include "internal/per_thread.hpp"
#include "permissions/map/attached_table.hpp"
#include "utils/root_scope.hpp"

namespace tavrix {

class HeldTable {
 public:
  // From now on a table is kept between calls, or no longer.
  void keep() noexcept { keeps_ = true; }
  void keep_no_longer() noexcept;
  // Scopes nest.
  void begin_scope() noexcept;
  void end_scope() noexcept;
  // Detaches. errno survives.
  void drop() noexcept;
  [[nodiscard]] bool is_holding() const noexcept { return address_ != nullptr; }

  // The held table while it is current, else null. Needs no privilege.
  [[nodiscard]] void* current() noexcept;
  // Attaches the current table, and holds it in a scope or a session. Null as get_perm_map_addr().
  [[nodiscard]] void* attach() noexcept;
  // Detaches a table that is not held.
  void give_back(void* table) noexcept;

  void at_thread_end() noexcept { drop(); }

 private:
  void hold(void* table) noexcept;
  [[nodiscard]] bool is_still_current() const noexcept;
  [[nodiscard]] bool is_known() const noexcept { return table_.address != nullptr; }

  void* address_ = nullptr;
  AttachedTable table_;        // empty when size and segment of the table are not known
  int set_ = -1;               // the set that names the current table
  time_t attached_ = 0;        // seconds of the coarse clock
  unsigned scopes_ = 0;        // open ones
  bool keeps_ = false;         // a session is open
  bool is_looked_at_ = false;  // in the present scope
};
inline PerThread<HeldTable> held_table;

// The current table for one decision. Becomes root when it must be attached.
class [[nodiscard]] CurrentTable {
 public:
  explicit CurrentTable(LazyRoot& root) noexcept;
  ~CurrentTable();
  CurrentTable(const CurrentTable&) = delete;
  CurrentTable& operator=(const CurrentTable&) = delete;

  // Null when there is no map.
  [[nodiscard]] void* get() const noexcept { return table_; }

 private:
  HeldTable* held_;  // null without memory for it
  void* table_;
};

}  // namespace tavrix
