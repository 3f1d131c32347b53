// SPDX-License-Identifier: LGPL-3.0-or-later
// Paths as people type them: the client's kind with backslashes, the server's kind with the tree in
// front, or relative to the share.
#pragma once

#include <string>

namespace tavrix::explain {

// Relative to the share, with slashes; empty for the share itself. "\Shared\Team",
// "/tavrix/Shared/Team" and "Shared/Team" are the same.
[[nodiscard]] std::string share_path(std::string text, const std::string& root);

}  // namespace tavrix::explain
