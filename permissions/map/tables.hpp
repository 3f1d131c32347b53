// SPDX-License-Identifier: LGPL-3.0-or-later
// The shortest looks at the tables. None of them logs, and none needs a privilege.
#pragma once

namespace tavrix {

// The set that get_perm_map_addr() read last in this process.
[[nodiscard]] int set_of_tables() noexcept;
// The index of the current table in that set; -1 for a removed set or another value.
[[nodiscard]] int index_in_set(int set) noexcept;
// The segment of a table, 0 or 1; -1 when there is none.
[[nodiscard]] int segment_of_table(int index) noexcept;

}  // namespace tavrix
