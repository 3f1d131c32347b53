// SPDX-License-Identifier: LGPL-3.0-or-later
// The two map tables and the semaphore set, as a program looks at them and changes them that must
// not lose a live set: a look that fails for another reason than "there is none" changes nothing.
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

// Makes a table current, in one step; makes the set when there is none. Not the step of one up or
// down that an undisturbed loader takes: after a reset of the set it would wait for ever, or name a
// table that does not exist. false and errno.
[[nodiscard]] bool make_current(int table);
// false and errno; a segment that is gone already is removed.
[[nodiscard]] bool remove_segment(const Segment& segment);

// A table that can be read.
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
