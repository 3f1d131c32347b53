// SPDX-License-Identifier: LGPL-3.0-or-later
// The map tables as tavrixctl looks at them, without changing anything.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::ctl {

struct TableState {
  int key;
  int shmid = -1;  // -1: there is none
  uint64_t bytes = 0;
  int readers = 0;
  int creator = 0;  // process id
};

struct MapState {
  int set = -1;  // the semaphores; -1: there are none
  int current = -1;
  int initialized = -1;
  TableState tables[2];
};
MapState map_state();

// The lock of the maps; complains and gives none when it cannot be taken.
Fd lock_or_complain();
// To standard error.
void tell(const mapload::Report& report);

// An image to look at: the current table, or a file.
class Image {
 public:
  // Complain and give nothing when there is none.
  static std::optional<Image> current();
  static std::optional<Image> file(const std::string& path);
  // Either, by whether a path is given; the image is verified before it is given.
  static std::optional<Image> sound(const std::string& path);

  [[nodiscard]] std::span<const std::byte> bytes() const;
  [[nodiscard]] const std::string& origin() const { return origin_; }

 private:
  std::string origin_;
  ShmAttachment table_;
  std::size_t table_bytes_ = 0;
  std::vector<std::byte> content_;
};

}  // namespace tavrix::ctl
