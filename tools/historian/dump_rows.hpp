// SPDX-License-Identifier: LGPL-3.0-or-later
// The records of a dump file as rows of the history.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/events/dump_reader.hpp"

namespace tavrix::historian {

// The columns of `records`. The texts belong to the message that they come from.
struct Row {
  int64_t time = 0;
  int op = 0;
  bool is_folder = false;
  uint32_t uid = 0;
  std::optional<int32_t> pid;
  std::string_view path;
  std::optional<std::string_view> target;
  std::optional<std::string_view> user;
  std::optional<std::string_view> address;
  std::optional<uint64_t> size;
};

struct DumpRows {
  std::vector<Row> rows;
  std::string problem;  // not empty: no flush wrote these bytes
  int64_t newest = 0;

  // The messages that the rows show.
  std::vector<events::Event> events;
  std::vector<events::Audit> audits;
};

[[nodiscard]] DumpRows rows_of(std::string_view bytes, bool is_audit);

}  // namespace tavrix::historian
