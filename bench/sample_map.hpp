// SPDX-License-Identifier: LGPL-3.0-or-later
// The maps that benchmarks ask about: made once a run for each shape, and made current on demand.
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

// Makes it the current table.
void publish(const sample::Shape& shape);

// Paths of folders of the map, spread over it in an order that no prefetcher foresees.
std::vector<std::string> some_paths(const sample::Shape& shape, std::size_t count);

// The two files of the shape, new hard links each time: an import removes them.
struct JsonPair {
  std::string size, data;
};
JsonPair json_pair(const sample::Shape& shape);

// Standard output goes to a file while this lives, as a loader's does.
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
