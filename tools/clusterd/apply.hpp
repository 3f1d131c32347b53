// SPDX-License-Identifier: LGPL-3.0-or-later
// The committed map comes into force on this node.
#pragma once

#include "tools/clusterd/prepare.hpp"
#include "tools/clusterd/settings.hpp"

namespace tavrix::clusterd {

// Does nothing when that map is in force. Waits for the lock of the maps.
[[nodiscard]] Outcome apply(const cluster::Committed& committed, unsigned kept_maps);

}  // namespace tavrix::clusterd
