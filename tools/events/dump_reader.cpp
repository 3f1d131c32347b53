// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/dump_reader.hpp"

#include <fmt/format.h>
#include <cstring>

#include "eventstore.h"
#include "tools/text/counted.hpp"

namespace tavrix::events {
namespace {

const uint8_t* bytes_of(std::string_view payload) {
  return reinterpret_cast<const uint8_t*>(payload.data());
}

}  // namespace

std::optional<std::string_view> DumpReader::next() {
  if (at_ == bytes_.size() || !damage_.empty()) return std::nullopt;
  staging_data_s head{};
  if (bytes_.size() - at_ < sizeof head) {
    damage_ =
        fmt::format("byte {}: {} {} no record", at_, text::counted(bytes_.size() - at_, "byte"),
                    text::verb(bytes_.size() - at_, "is", "are"));
    return std::nullopt;
  }
  std::memcpy(&head, bytes_.data() + at_, sizeof head);
  if (head.sig != STAGING_DATA_SIGNATURE) {
    damage_ = fmt::format("byte {}: the signature is 0x{:08x}", at_, head.sig);
    return std::nullopt;
  }
  const std::size_t left = bytes_.size() - at_ - sizeof head;
  if (head.size == 0 || head.size > left) {
    damage_ = fmt::format("byte {}: a record of {}, and {} {} left", at_,
                          text::counted(head.size, "byte"), left, text::verb(left, "is", "are"));
    return std::nullopt;
  }
  const std::string_view payload = bytes_.substr(at_ + sizeof head, head.size);
  at_ += sizeof head + head.size;
  return payload;
}

Event unpack_event(std::string_view payload) {
  return Event(vfsevent__unpack(nullptr, payload.size(), bytes_of(payload)));
}

Audit unpack_audit(std::string_view payload) {
  return Audit(audit_event__unpack(nullptr, payload.size(), bytes_of(payload)));
}

}  // namespace tavrix::events
