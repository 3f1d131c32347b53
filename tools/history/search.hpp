// SPDX-License-Identifier: LGPL-3.0-or-later
// The records that an operator asks for, page by page, newest first.
#pragma once

#include <sqlite3.h>
#include <chrono>
#include <optional>
#include <vector>

#include "tools/events/record_filter.hpp"
#include "tools/history/record.hpp"

namespace tavrix::history {

struct Search {
  events::RecordFilter filter;
  bool reads = false;  // audited reads too; a filter that names them has them anyway
  std::size_t limit = 200;
  std::optional<Position> after;                      // where the page before ended
  std::optional<std::chrono::milliseconds> patience;  // then the page ends, full or not
  std::size_t turn = 2048;  // records of the first turn of the work; later ones grow
};

struct Page {
  std::vector<Record> records;
  // The place where the next page begins; nothing when there are no more records. New records do
  // not move it.
  std::optional<Position> next;
  bool is_cut = false;  // the patience ended before the page was full
};

// Nothing on a failure, which is on the connection. Each part of the work is a read transaction of
// its own, and a short one.
[[nodiscard]] std::optional<Page> search(sqlite3* database, const Search& search);

}  // namespace tavrix::history
