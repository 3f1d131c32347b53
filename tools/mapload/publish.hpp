// SPDX-License-Identifier: LGPL-3.0-or-later
// From a filled, checked table to the current map.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "tools/mapload/mark.hpp"
#include "tools/mapload/report.hpp"
#include "tools/mapload/tables.hpp"

namespace tavrix::mapload {

// A table that is being filled; removed again unless it is published.
class NextTable {
 public:
  NextTable() = default;
  ~NextTable();
  NextTable(const NextTable&) = delete;
  NextTable& operator=(const NextTable&) = delete;

  // Empty, or what stands in the way; then errno says why.
  [[nodiscard]] std::string create(int table, uint32_t bytes);
  [[nodiscard]] void* address() const { return address_.get(); }
  [[nodiscard]] int index() const { return table_; }
  [[nodiscard]] std::span<const std::byte> image() const;

  // Readers who look for the table find this one.
  [[nodiscard]] bool is_in_place() const;

  // Makes the table current and removes the one of before. Empty, or why the map of before is
  // current still, with errno. Troubles after the change are reported and change nothing.
  [[nodiscard]] std::string publish(const files::Digest& digest, Report& report);

 private:
  ShmAttachment address_;
  int table_ = -1;
  int id_ = -1;
  std::size_t bytes_ = 0;
  bool is_published_ = false;
};

// Server processes look at the time of this file at their next status query.
void tell_servers(Report& report);

}  // namespace tavrix::mapload
