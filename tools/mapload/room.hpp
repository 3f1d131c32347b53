// What can be known to fail for lack of space is refused before anything is touched.
#pragma once

#include <cstdint>
#include <string>

namespace tavrix::mapload {

// What stands in the way of an image of that size beside the one that is there; empty: nothing.
std::string lack_of_room(uint64_t image_bytes, uint64_t data_file_bytes);

}  // namespace tavrix::mapload
