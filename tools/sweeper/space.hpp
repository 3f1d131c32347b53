// SPDX-License-Identifier: LGPL-3.0-or-later
// Room for a dump file.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::sweeper {

constexpr const char* kProbePrefix = ".room";

// Empty when a flush of so many bytes into the folder will find a file and the space for it, or
// what is missing. A file of that size is made and taken away again: free space is not all that a
// write needs.
std::string lack_of_room(const std::string& folder, uint64_t bytes);

}  // namespace tavrix::sweeper
