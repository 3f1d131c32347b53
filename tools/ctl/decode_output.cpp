// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/decode_output.hpp"

#include <algorithm>
#include <span>
#include <type_traits>
#include <variant>
#include <vector>

#include "tools/ctl/output.hpp"
#include "tools/events/dump_reader.hpp"
#include "tools/events/operations.hpp"
#include "tools/events/record_fields.hpp"

namespace tavrix::ctl {
namespace {

using json::Json;

constexpr int64_t kSecond = 1'000'000;

// The name of a field in a line; the order of the columns is the order in the line. Fields without
// a column follow them, in the order and under the names of the .proto file, so a new field needs
// no change here.
struct Column {
  const char* field;
  const char* key;
};
using Columns = std::span<const Column>;

constexpr Column kEventColumns[] = {
    {"time_sec", "time_sec"},
    {"time_usec", "time_usec"},
    {"optype", "type"},
    {"fselem_type", "object"},
    {"path", "path"},
    {"rename_path", "rename_path"},
    {"uid", "uid"},
    {"tavrix_user", "user"},
    {"client_pid", "client_pid"},
};
constexpr Column kAuditColumns[] = {
    {"time_sec", "time_sec"},     {"path", "path"}, {"uid", "uid"},
    {"ip_address", "ip_address"}, {"size", "size"},
};

void set_value(Json& json, const std::string& key, const events::Field::Value& value) {
  std::visit(
      [&](const auto& plain) {
        if constexpr (std::is_same_v<std::decay_t<decltype(plain)>, std::string>) {
          json::set_bytes(json, key, plain);
        } else {
          json[key] = plain;
        }
      },
      value);
}

void set_fields(Json& json, const ProtobufCMessage& record, Columns columns) {
  std::vector<events::Field> fields = events::fields_of(record);
  for (const Column& column : columns) {
    const auto field = std::find_if(fields.begin(), fields.end(), [&](const events::Field& each) {
      return each.name == column.field;
    });
    if (field == fields.end()) continue;
    set_value(json, column.key, field->value);
    fields.erase(field);
  }
  for (const events::Field& field : fields) {
    // A new field may have the name of a column, as "type" is the column of "optype".
    set_value(json, json.contains(field.name) ? "field_" + field.name : field.name, field.value);
  }
}

int64_t time_of(const VFSEvent& event) { return event.time_sec * kSecond + event.time_usec; }

std::optional<int64_t> event_time(std::string_view payload) {
  const events::Event event = events::unpack_event(payload);
  if (event == nullptr) return std::nullopt;
  return time_of(*event);
}

void put_event(std::string_view payload, DecodeSink& sink) {
  const events::Event event = events::unpack_event(payload);
  const char* target = event->rename_path == nullptr ? "" : event->rename_path;
  if (!sink.takes({time_of(*event), event->optype, event->uid, event->path, target})) return;
  if (sink.counts()) {
    sink.count(events::operation_name(event->optype), event->uid, event->time_sec);
    return;
  }
  const auto part = event->time_usec < 0 ? std::nullopt : std::optional(event->time_usec);
  Json line = sink.begin_line(json::rfc3339(event->time_sec, part));
  set_fields(line, event->base, kEventColumns);
  sink.end_line(std::move(line), event->uid);
}

std::optional<int64_t> audit_time(std::string_view payload) {
  const events::Audit audit = events::unpack_audit(payload);
  if (audit == nullptr) return std::nullopt;
  return audit->time_sec * kSecond;
}

void put_audit(std::string_view payload, DecodeSink& sink) {
  const events::Audit audit = events::unpack_audit(payload);
  const int64_t time = audit->time_sec * kSecond;
  if (!sink.takes({time, history::kReadOperation, audit->uid, audit->path, {}})) return;
  if (sink.counts()) {
    sink.count("AUDIT", audit->uid, audit->time_sec);
    return;
  }
  Json line = sink.begin_line(json::rfc3339(audit->time_sec));
  set_fields(line, audit->base, kAuditColumns);
  sink.end_line(std::move(line), audit->uid);
}

}  // namespace

const RecordKind kEventRecords = {"events-decode", "/tavrix/.conf/staging", event_time, put_event};
const RecordKind kAuditRecords = {"audit-decode", "/tavrix/.conf/auditing", audit_time, put_audit};

void DecodeSink::count(const std::string& type, uint32_t uid, int64_t seconds) {
  ++records_;
  ++by_type_[type];
  if (!node_->empty()) ++by_node_[*node_];
  ++by_user_[std::to_string(uid)];
  if (const std::string& name = people_.name_of(uid); !name.empty()) ++by_user_name_[name];
  ++by_minute_[json::rfc3339(seconds / 60 * 60).value_or("unknown")];
}

Json DecodeSink::begin_line(const std::optional<std::string>& time) const {
  Json line = wishes_.names_schema ? json::document(kind_.schema) : Json::object();
  if (time) line["time"] = *time;
  if (!node_->empty()) line["node"] = *node_;
  return line;
}

void DecodeSink::end_line(Json line, uint32_t uid) {
  if (const std::string& name = people_.name_of(uid); !name.empty())
    json::set_bytes(line, "user_name", name);
  print_line(line);
}

void DecodeSink::finish() {
  if (!wishes_.counts) return;
  Json json =
      wishes_.names_schema ? json::document(std::string(kind_.schema) + "-stats") : Json::object();
  json["records"] = records_;
  if (!by_type_.empty()) json["by_type"] = by_type_;
  json["by_user"] = by_user_;
  json["by_minute"] = by_minute_;
  if (!by_user_name_.empty()) json["by_user_name"] = by_user_name_;
  if (!by_node_.empty()) json["by_node"] = by_node_;
  print(json);
}

}  // namespace tavrix::ctl
