// SPDX-License-Identifier: LGPL-3.0-or-later
// The size file's part of a lint.
#pragma once

#include "tools/mapcheck/lint.hpp"

namespace tavrix::mapcheck {

void lint_size_file(Source& source, LintResult& result);

// The number that the import reads from a text, and whether the text says exactly that.
struct Number {
  uint64_t value = 0;
  bool is_plain = false;  // digits only, and not too many
};
Number number_of(std::string_view token);

// The size of the image in bytes, as the size pass computes it but without its limit of 32 bits.
uint64_t image_bytes_of(const SizeFile& size);

}  // namespace tavrix::mapcheck
