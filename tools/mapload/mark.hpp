// SPDX-License-Identifier: LGPL-3.0-or-later
// The mark on the disk that says which map was published last: its segment, its image, its age.
//
// It is written before the index moves: from then on the new map is the one that a restart, or a
// watch that finds the index reset, makes current. An older one never comes back by itself.
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

  // The segment is the published one.
  [[nodiscard]] bool is(int index, const Segment& other) const;
  // An image of that age would be a step back.
  [[nodiscard]] bool is_newer_than(uint32_t generation, int64_t timestamp) const;
};

// A mark for the image in a segment.
[[nodiscard]] Mark mark_of(int table, const Segment& segment, std::span<const std::byte> image,
                           files::Digest digest);
// Nothing when there is none, or when it is damaged.
[[nodiscard]] std::optional<Mark> read_mark();
// false and errno.
[[nodiscard]] bool write_mark(const Mark& mark);

}  // namespace tavrix::mapload
