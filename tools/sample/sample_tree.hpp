// SPDX-License-Identifier: LGPL-3.0-or-later
// Writes sample permission maps of any size, as a size file and a data file.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::sample {

struct Shape {
  uint64_t folders = 1000;
  unsigned fan_out = 16;  // children of a folder
  uint32_t first_uid = 1000;
  unsigned users = 200;  // user ids in the entries
  unsigned groups = 50;
  uint32_t seed = 1;
};

struct Sums {
  uint64_t folders = 0;
  uint64_t aces = 0;
  uint64_t name_bytes = 0;
};

// Writes both files. The tree has "/", "Shared" and "Private" at the top and team folders below
// Shared. Throws when a file cannot be written.
Sums write_sample(const Shape& shape, const std::string& size_path, const std::string& data_path);

// The path of the nth folder below Shared, for lookups in a map that was written before.
std::string sample_path(const Shape& shape, uint64_t number);

}  // namespace tavrix::sample
