// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/dump_reader.hpp"

#include <fmt/format.h>
#include <cstring>
#include <memory>

#include "eventstore.h"
#include "vfs_common.h"

namespace tavrix::events {
namespace {

struct FreeEvent {
  void operator()(VFSEvent* event) const { vfsevent__free_unpacked(event, nullptr); }
};
struct FreeAudit {
  void operator()(AuditEvent* event) const { audit_event__free_unpacked(event, nullptr); }
};

const uint8_t* bytes_of(std::string_view payload) {
  return reinterpret_cast<const uint8_t*>(payload.data());
}

std::optional<std::string> optional_text(const char* text) {
  if (text == nullptr) return std::nullopt;
  return text;
}

}  // namespace

std::optional<std::string_view> DumpReader::next() {
  if (at_ == bytes_.size() || !damage_.empty()) return std::nullopt;
  staging_data_s head{};
  if (bytes_.size() - at_ < sizeof head) {
    damage_ = fmt::format("byte {}: {} bytes are no record", at_, bytes_.size() - at_);
    return std::nullopt;
  }
  std::memcpy(&head, bytes_.data() + at_, sizeof head);
  if (head.sig != STAGING_DATA_SIGNATURE) {
    damage_ = fmt::format("byte {}: the signature is 0x{:08x}", at_, head.sig);
    return std::nullopt;
  }
  const std::size_t left = bytes_.size() - at_ - sizeof head;
  if (head.size == 0 || head.size > left) {
    damage_ = fmt::format("byte {}: a record of {} bytes, and {} are left", at_, head.size, left);
    return std::nullopt;
  }
  const std::string_view payload = bytes_.substr(at_ + sizeof head, head.size);
  at_ += sizeof head + head.size;
  return payload;
}

std::optional<Event> unpack_event(std::string_view payload) {
  const std::unique_ptr<VFSEvent, FreeEvent> event(
      vfsevent__unpack(nullptr, payload.size(), bytes_of(payload)));
  if (event == nullptr) return std::nullopt;
  return Event{.client_pid = event->client_pid,
               .path = event->path,
               .uid = event->uid,
               .rename_path = optional_text(event->rename_path),
               .optype = static_cast<int>(event->optype),
               .seconds = event->time_sec,
               .microseconds = event->time_usec,
               .fselem_type = static_cast<int>(event->fselem_type),
               .user = optional_text(event->tavrix_user)};
}

std::string optype_name(int optype) {
  const ProtobufCEnumValue* value =
      protobuf_c_enum_descriptor_get_value(&vfsevent__op_type__descriptor, optype);
  if (value == nullptr) return std::to_string(optype);
  constexpr std::size_t kPrefix = sizeof "OPTYPE_" - 1;
  return value->name + kPrefix;
}

std::optional<Audit> unpack_audit(std::string_view payload) {
  const std::unique_ptr<AuditEvent, FreeAudit> event(
      audit_event__unpack(nullptr, payload.size(), bytes_of(payload)));
  if (event == nullptr) return std::nullopt;
  return Audit{.path = event->path,
               .uid = event->uid,
               .seconds = event->time_sec,
               .address = optional_text(event->ip_address),
               .size = event->size};
}

}  // namespace tavrix::events
