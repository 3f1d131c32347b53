// SPDX-License-Identifier: LGPL-3.0-or-later
// A look at space and memory: a lack of them refuses an import before anything is touched.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::mapload {

// Says what an image of that size lacks beside the one that is there; empty: nothing.
std::string lack_of_room(uint64_t image_bytes, uint64_t data_file_bytes);

}  // namespace tavrix::mapload
