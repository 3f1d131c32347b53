// SPDX-License-Identifier: LGPL-3.0-or-later
// The records that an operator asks for, in dump files and in the history alike.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "tools/events/operations.hpp"
#include "tools/events/path_pattern.hpp"

namespace tavrix::events {

// The parts of a record that a filter looks at.
struct Occurrence {
  int64_t time = 0;  // microseconds since 1970
  int operation = 0;
  uint32_t uid = 0;
  std::string_view path;
  std::string_view target;  // of a rename; empty for others
};

// Each condition that is not set takes every record.
struct RecordFilter {
  std::optional<PathPattern> path;  // the path or, of a rename, the new one
  std::optional<uint32_t> uid;
  std::optional<Operations> operations;
  std::optional<int64_t> since, until;  // both are taken too

  [[nodiscard]] bool takes_time(int64_t time) const {
    return (!since || time >= *since) && (!until || time <= *until);
  }
  [[nodiscard]] bool takes_operation(int operation) const {
    if (!operations) return true;
    const auto place = static_cast<std::size_t>(operation);
    return place < operations->size() && operations->test(place);
  }
  [[nodiscard]] bool takes_path(std::string_view path_of_record, std::string_view target) const {
    if (!path || path->matches(path_of_record)) return true;
    return !target.empty() && path->matches(target);
  }
  [[nodiscard]] bool takes(const Occurrence& record) const {
    return takes_time(record.time) && takes_operation(record.operation) &&
           (!uid || record.uid == *uid) && takes_path(record.path, record.target);
  }
};

}  // namespace tavrix::events
