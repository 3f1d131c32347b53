// SPDX-License-Identifier: LGPL-3.0-or-later
// The size file's part of a lint.
#pragma once

#include "tools/mapcheck/lint.hpp"

namespace tavrix::mapcheck {

void lint_size_file(Source& source, LintResult& result);

// The text as a number of the import would read it, and whether it would change on the way.
struct Number {
  uint64_t value = 0;
  bool is_plain = false;  // digits only, and not too many
};
Number number_of(std::string_view token);

// Bytes of the image that the size pass computes; more than 32 bits hold when the counts are that
// large.
uint64_t image_bytes_of(const SizeFile& size);

}  // namespace tavrix::mapcheck
