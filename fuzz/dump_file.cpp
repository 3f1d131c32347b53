// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads any bytes as a dump file of events and of audits.

#include <string_view>

#include "fuzz/target.hpp"
#include "tools/events/dump_reader.hpp"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  tavrix::events::DumpReader reader(bytes);
  while (const auto payload = reader.next()) {
    static_cast<void>(tavrix::events::unpack_event(*payload));
    static_cast<void>(tavrix::events::unpack_audit(*payload));
  }
  tavrix::fuzz::require(reader.offset() == size || !reader.damage().empty(), "damage is told");
  return 0;
}
