// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads any bytes as a dump file of events and of audits.

#include <string_view>

#include "fuzz/target.hpp"
#include "tools/events/dump_reader.hpp"
#include "tools/events/record_fields.hpp"

namespace {

void look_at(const ProtobufCMessage& record) {
  const auto fields = tavrix::events::fields_of(record);
  tavrix::fuzz::require(fields.size() >= record.n_unknown_fields, "no field is hidden");
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  tavrix::events::DumpReader reader(bytes);
  while (const auto payload = reader.next()) {
    if (const auto event = tavrix::events::unpack_event(*payload)) look_at(event->base);
    if (const auto audit = tavrix::events::unpack_audit(*payload)) look_at(audit->base);
  }
  tavrix::fuzz::require(reader.offset() == size || !reader.damage().empty(), "damage is told");
  return 0;
}
