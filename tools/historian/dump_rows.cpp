// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/dump_rows.hpp"

#include <fmt/format.h>
#include <algorithm>

#include "tools/history/schema.hpp"

namespace tavrix::historian {
namespace {

constexpr int64_t kMicros = 1'000'000;

std::optional<std::string_view> optional_text(const char* text) {
  if (text == nullptr) return std::nullopt;
  return text;
}

Row row_of(const VFSEvent& event) {
  Row row;
  row.time = event.time_sec * kMicros + event.time_usec;
  row.op = static_cast<int>(event.optype);
  row.is_folder = event.fselem_type == VFSEVENT__FS_ELEM_TYPE__FSELEMTYPE_DIR;
  row.uid = event.uid;
  row.pid = event.client_pid;
  row.path = event.path;
  row.target = optional_text(event.rename_path);
  row.user = optional_text(event.tavrix_user);
  return row;
}

Row row_of(const AuditEvent& audit) {
  Row row;
  row.time = audit.time_sec * kMicros;
  row.op = history::kReadOperation;
  row.uid = audit.uid;
  row.path = audit.path;
  row.address = optional_text(audit.ip_address);
  row.size = audit.size;
  return row;
}

// Appends the row of the payload; false when it is no such record.
template <typename Message>
bool append(Message message, std::vector<Message>& messages, DumpRows& dump) {
  if (message == nullptr) return false;
  dump.rows.push_back(row_of(*message));
  messages.push_back(std::move(message));
  return true;
}

}  // namespace

DumpRows rows_of(std::string_view bytes, bool is_audit) {
  DumpRows dump;
  events::DumpReader reader(bytes);
  while (const auto payload = reader.next()) {
    const bool is_record = is_audit ? append(events::unpack_audit(*payload), dump.audits, dump)
                                    : append(events::unpack_event(*payload), dump.events, dump);
    if (!is_record) {
      dump.problem = fmt::format("the record before byte {} is no {}", reader.offset(),
                                 is_audit ? "audit" : "event");
      return dump;
    }
    dump.newest = std::max(dump.newest, dump.rows.back().time);
  }
  dump.problem = reader.damage();
  // A flush writes no empty file; a power cut may leave one.
  if (bytes.empty()) dump.problem = "the file is empty";
  return dump;
}

}  // namespace tavrix::historian
