// SPDX-License-Identifier: LGPL-3.0-or-later
// Reads the dump files of events and audits record by record, and reports damage.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "vfs_common.h"

namespace tavrix::events {

// Walks over the frames of a dump. It stops at a torn or foreign frame, because nothing tells where
// the next one begins.
class DumpReader {
 public:
  explicit DumpReader(std::string_view bytes) : bytes_(bytes) {}

  // The next payload; nothing at the end and at damage.
  std::optional<std::string_view> next();
  // A description of the damage with its offset; empty when the dump ends well.
  [[nodiscard]] const std::string& damage() const { return damage_; }
  [[nodiscard]] uint64_t offset() const { return at_; }

 private:
  std::string_view bytes_;
  std::size_t at_ = 0;
  std::string damage_;
};

// A record in memory, as the protobuf compiler lays it out.
struct FreeRecord {
  template <typename Record>
  void operator()(Record* record) const {
    protobuf_c_message_free_unpacked(&record->base, nullptr);
  }
};
using Event = std::unique_ptr<VFSEvent, FreeRecord>;
using Audit = std::unique_ptr<AuditEvent, FreeRecord>;

// Returns null when the payload is not a record of the kind.
Event unpack_event(std::string_view payload);
Audit unpack_audit(std::string_view payload);

}  // namespace tavrix::events
