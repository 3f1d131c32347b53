// SPDX-License-Identifier: LGPL-3.0-or-later
// A record of the history, and its place in the order of all.
#pragma once

#include <compare>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include "tools/history/statement.hpp"

namespace tavrix::history {

// Records are ordered by time. Those of the same time, such as reads, which know only their second,
// are in the order in which they were taken.
struct Position {
  int64_t time = 0;  // microseconds since 1970
  int64_t id = 0;
  auto operator<=>(const Position&) const = default;
};

constexpr Position kFirst = {std::numeric_limits<int64_t>::min(), 0};
constexpr Position kLast = {std::numeric_limits<int64_t>::max(), 0};

struct Record {
  Position at;
  int operation = 0;
  bool is_folder = false;
  uint32_t uid = 0;
  std::string path;
  std::string target;  // of a rename; empty for others
  std::string user;    // the name that the record brings; mostly empty
  std::optional<int64_t> pid;
  std::string address;          // reads only
  std::optional<int64_t> size;  // reads only
  int64_t dump = 0;             // the row of `dumps`
  std::string node;             // whose record it is; Nodes sets it
};

// The columns that record_in() reads, in its order.
constexpr const char* kRecordColumns =
    "id, time, op, folder, uid, path, target, user, pid, address, size, dump";

// The record in the present row of a statement, without its node.
[[nodiscard]] Record record_in(const Statement& row);

// "1795345200000000.42", as a page names the place where the next one goes on.
[[nodiscard]] std::string cursor_of(const Position& position);
[[nodiscard]] std::optional<Position> position_of(const std::string& cursor);

}  // namespace tavrix::history
