// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks an image before anything trusts it: every signature, offset, range, count and link.
// Accepts any bytes at all, and reads nothing outside of them.
#pragma once

#include <cstddef>
#include <span>

#include "tools/mapcheck/findings.hpp"

namespace tavrix::mapcheck {

Findings verify(std::span<const std::byte> image);

}  // namespace tavrix::mapcheck
