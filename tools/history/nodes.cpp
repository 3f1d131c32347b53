// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/nodes.hpp"

namespace tavrix::history {

Nodes::Nodes(sqlite3* database) : find_(database, "SELECT node FROM dumps WHERE id = ?") {}

bool Nodes::set(Record& record) {
  auto known = known_.find(record.dump);
  if (known == known_.end()) {
    find_.bind(1, record.dump);
    const bool is_there = find_.step();
    if (find_.failed()) return false;
    known = known_.emplace(record.dump, is_there ? find_.text(0) : std::string_view()).first;
    find_.reset();
  }
  record.node = known->second;
  return true;
}

}  // namespace tavrix::history
