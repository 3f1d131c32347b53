// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/record.hpp"

#include <charconv>

namespace tavrix::history {
namespace {

std::optional<int64_t> optional_number(const Statement& row, int column) {
  if (row.is_null(column)) return std::nullopt;
  return row.number(column);
}

std::optional<int64_t> number(std::string_view text) {
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

}  // namespace

Record record_in(const Statement& row) {
  return {
      .at = {row.number(1), row.number(0)},
      .operation = static_cast<int>(row.number(2)),
      .is_folder = row.number(3) != 0,
      .uid = static_cast<uint32_t>(row.number(4)),
      .path = std::string(row.text(5)),
      .target = std::string(row.text(6)),
      .user = std::string(row.text(7)),
      .pid = optional_number(row, 8),
      .address = std::string(row.text(9)),
      .size = optional_number(row, 10),
      .dump = row.number(11),
      .node = {},
  };
}

std::string cursor_of(const Position& position) {
  return std::to_string(position.time) + "." + std::to_string(position.id);
}

std::optional<Position> position_of(const std::string& cursor) {
  const auto dot = cursor.find('.');
  if (dot == std::string::npos) return std::nullopt;
  const auto time = number(std::string_view(cursor).substr(0, dot));
  const auto id = number(std::string_view(cursor).substr(dot + 1));
  if (!time || !id) return std::nullopt;
  return Position{*time, *id};
}

}  // namespace tavrix::history
