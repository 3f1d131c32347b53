// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks whether there is room for a dump file.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::sweeper {

constexpr const char* kProbePrefix = ".room";

// Returns an empty text if a flush of so many bytes can make its file in the folder, or what is
// missing. Makes a file of that size and removes it again, because a write needs more than free
// space, such as an inode and a quota.
std::string lack_of_room(const std::string& folder, uint64_t bytes);

}  // namespace tavrix::sweeper
