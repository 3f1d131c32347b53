// SPDX-License-Identifier: LGPL-3.0-or-later
// The line that the loader prints to standard output for each name that it creates.
#pragma once

#include <cstdint>

namespace tavrix {

// Prints "--------> Name %s hahsval %u " and a newline. Scripts read these lines.
void print_name_trace(const char* name, uint32_t len, uint32_t hash) noexcept;

// Collects the lines for the length of a scope and writes many at a time, because an import prints
// millions. Lines are written when the buffer is full and at the end of the scope. An abort loses
// the last ones, as it loses the C library's own buffer. Does not nest.
class NameTraces {
 public:
  NameTraces() noexcept;
  ~NameTraces();
  NameTraces(const NameTraces&) = delete;
  NameTraces& operator=(const NameTraces&) = delete;
};

}  // namespace tavrix
