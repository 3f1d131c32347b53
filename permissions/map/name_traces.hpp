// SPDX-License-Identifier: LGPL-3.0-or-later
// The line that the loader prints to standard output for every name it makes.
#pragma once

#include <cstdint>

namespace tavrix {

// "--------> Name %s hahsval %u " and a newline. The loader has printed it from its first day, and
// scripts read it.
void print_name_trace(const char* name, uint32_t len, uint32_t hash) noexcept;

// While one lives, lines are put together here and written many at a time: an import prints
// millions of them. The end of its life, or a fuller buffer, writes them; an abort loses the last
// ones, as the C library's own buffer would. Does not nest.
class NameTraces {
 public:
  NameTraces() noexcept;
  ~NameTraces();
  NameTraces(const NameTraces&) = delete;
  NameTraces& operator=(const NameTraces&) = delete;
};

}  // namespace tavrix
