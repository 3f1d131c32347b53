// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks disk space and memory before an import, so that a lack of them is found before anything
// changes.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::mapload {

// Returns what is missing for another image of that size, or an empty text.
std::string lack_of_room(uint64_t image_bytes, uint64_t data_file_bytes);
// True if the local copy of that size has no space on its disk.
bool is_lack_of_disk(uint64_t image_bytes);

}  // namespace tavrix::mapload
