// SPDX-License-Identifier: LGPL-3.0-or-later
// The mark on the disk says which map was published last: its segment, its image and its age.
//
// The mark is written before the index moves. From then on a restart, or a watch that finds the
// index reset, makes the new map current. An older map never comes back by itself.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/files/checksum.hpp"
#include "tools/mapload/tables.hpp"

namespace tavrix::mapload {

struct Mark {
  int table = 0;
  Segment segment;
  std::string boot;  // the run of the machine that the segment belongs to
  uint32_t generation = 0;
  int64_t timestamp = 0;
  files::Digest digest;  // of the image

  // True if the segment is the published one.
  [[nodiscard]] bool is(int index, const Segment& other) const;
  // True if an image of that age is older than the published one.
  [[nodiscard]] bool is_newer_than(uint32_t generation, int64_t timestamp) const;
};

// Makes a mark for the image in a segment.
[[nodiscard]] Mark mark_of(int table, const Segment& segment, std::span<const std::byte> image,
                           files::Digest digest);
// Returns nothing when there is no mark or when it is damaged.
[[nodiscard]] std::optional<Mark> read_mark();
// Returns false and sets errno when it fails.
[[nodiscard]] bool write_mark(const Mark& mark);

}  // namespace tavrix::mapload
