// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks an image before anything trusts it: every signature, offset, range, count and link.
// Accepts any bytes at all, and reads nothing outside of them.
#pragma once

#include <cstddef>
#include <span>

#include "tools/mapcheck/findings.hpp"
#include "tools/mapcheck/progress.hpp"

namespace tavrix::mapcheck {

// The progress is told in folders.
Findings verify(std::span<const std::byte> image, const Progress& progress = {});

}  // namespace tavrix::mapcheck
