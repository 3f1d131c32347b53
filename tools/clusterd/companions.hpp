// SPDX-License-Identifier: LGPL-3.0-or-later
// The files that came with maps of the cluster: the group list map, and the settings.
#pragma once

#include "tools/clusterd/prepare.hpp"

namespace tavrix::clusterd {

// Puts those into force here that came after the map which this node published last. What somebody
// changed on this node since then stays, and is told as a difference. May be called again.
[[nodiscard]] Outcome install_companions(const cluster::Committed& committed);

}  // namespace tavrix::clusterd
