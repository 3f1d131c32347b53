// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads and changes the two map tables and the semaphore set without ever losing a live set: when a
// look fails for another reason than "there is none", nothing is changed.
#pragma once

#include <sys/types.h>
#include <cstddef>
#include <ctime>
#include <span>
#include <string>

#include "internal/scoped.hpp"

namespace tavrix::mapload {

struct Segment {
  int id = -1;  // -1: there is none
  time_t created = 0;
  pid_t creator = 0;
  std::size_t bytes = 0;
  bool operator==(const Segment&) const = default;
};

struct Tables {
  int set = -1;  // -1: there is none
  int current = -1, initialized = -1;
  Segment table[2];
  int error = 0;  // errno of a look that failed; nothing else counts then
  bool operator==(const Tables&) const = default;
};
[[nodiscard]] Tables look_at_tables();
[[nodiscard]] int key_of(int table);

// Makes a table current in one step, and makes the set when there is none. It sets both values and
// does not step the index up or down: after a reset of the set, such a step would wait for ever or
// name a table that does not exist. Returns false and sets errno when it fails.
[[nodiscard]] bool make_current(int table);
// Returns false and sets errno when it fails. Succeeds also when the segment is gone already.
[[nodiscard]] bool remove_segment(const Segment& segment);

// A table attached for reading.
class Attached {
 public:
  explicit Attached(const Segment& segment);
  [[nodiscard]] explicit operator bool() const { return static_cast<bool>(address_); }
  [[nodiscard]] std::span<const std::byte> bytes() const;

 private:
  ShmAttachment address_;
  std::size_t size_;
};

}  // namespace tavrix::mapload
