// SPDX-License-Identifier: LGPL-3.0-or-later
// Makes a filled and checked table the current map.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>

#include "tools/mapload/mark.hpp"
#include "tools/mapload/report.hpp"
#include "tools/mapload/tables.hpp"

namespace tavrix::mapload {

// A table that is being filled. The end of the scope removes it unless it was published.
class NextTable {
 public:
  NextTable() = default;
  ~NextTable();
  NextTable(const NextTable&) = delete;
  NextTable& operator=(const NextTable&) = delete;

  // Returns an empty text, or what went wrong, with errno.
  [[nodiscard]] std::string create(int table, uint32_t bytes);
  [[nodiscard]] void* address() const { return address_.get(); }
  [[nodiscard]] int index() const { return table_; }
  [[nodiscard]] std::span<const std::byte> image() const;

  // True if readers who look for the table find this one.
  [[nodiscard]] bool is_in_place() const;

  // Makes the table current and removes the previous one. Returns an empty text, or why the
  // previous map is still current, with errno. Failures after the change go into the report.
  [[nodiscard]] std::string publish(const files::Digest& digest, Report& report);

 private:
  ShmAttachment address_;
  int table_ = -1;
  int id_ = -1;
  std::size_t bytes_ = 0;
  bool is_published_ = false;
};

// Touches the refresh file. Server processes compare its time at their next status query and then
// forget their verdicts.
void tell_servers(Report& report);

}  // namespace tavrix::mapload
