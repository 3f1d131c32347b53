// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/buffer_size.hpp"

#include <fmt/format.h>

#include "tools/sweeper/connections.hpp"
#include "tools/sweeper/staging_owner.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::sweeper {

bool offer_buffer_size(int32_t bytes, global_param_s* block, std::string& why_not) {
  const std::size_t present = segment_bytes();
  if (present != 0 && present < static_cast<std::size_t>(bytes) &&
      !own_staging_buffer(bytes, why_not)) {
    return false;
  }
  int32_t& size = block[PARAM_STAGING_BUFFER_SIZE].value.intval;
  if (size == bytes) return true;
  if (size > 0) {
    if (const int count = live_connections(); count > 0) {
      why_not = fmt::format(
          "{} {} with a staging buffer of {}; the size becomes {} when none of them is left",
          text::counted(count, "connection"), text::verb(count, "works", "work"),
          text::counted(size, "byte"), text::counted(bytes, "byte"));
      return false;
    }
  }
  __atomic_store_n(&size, bytes, __ATOMIC_RELEASE);
  return true;
}

}  // namespace tavrix::sweeper
