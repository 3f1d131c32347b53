// SPDX-License-Identifier: LGPL-3.0-or-later
// The data file's part of a lint.
#pragma once

#include "tools/mapcheck/lint.hpp"

namespace tavrix::mapcheck {

// Returns true if the document was read to its end, so that its counts are complete.
bool lint_data_file(Source& source, LintResult& result);

}  // namespace tavrix::mapcheck
