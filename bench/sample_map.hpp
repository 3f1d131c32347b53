// SPDX-License-Identifier: LGPL-3.0-or-later
// The maps of the benchmarks. Each shape is built once per run and made current on demand.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/sample/sample_tree.hpp"

namespace tavrix::bench {

inline sample::Shape shape_of(uint64_t folders, unsigned fan_out = 16) {
  return {.folders = folders, .fan_out = fan_out};
}

// The image of a sample map, in private memory.
const std::vector<std::byte>& image_of(const sample::Shape& shape);

// Makes the sample map of this shape the current table.
void publish(const sample::Shape& shape);

// Paths of folders, spread over the map in an order that defeats prefetching.
std::vector<std::string> some_paths(const sample::Shape& shape, std::size_t count);

// The two JSON files of the shape. An import removes them, so each call makes new hard links.
struct JsonPair {
  std::string size, data;
};
JsonPair json_pair(const sample::Shape& shape);

// Redirects standard output to a file for a scope: an import prints its traces there.
class OutputToFile {
 public:
  OutputToFile();
  ~OutputToFile();
  OutputToFile(const OutputToFile&) = delete;
  OutputToFile& operator=(const OutputToFile&) = delete;

 private:
  int saved_;
};

}  // namespace tavrix::bench
