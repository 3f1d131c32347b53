// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/record_fields.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cstring>
#include <map>
#include <string_view>

namespace tavrix::events {
namespace {

using Fields = std::vector<Field>;

void add_fields(const std::string& prefix, const ProtobufCMessage& record, Fields& fields);

template <typename Member>
Member load(const std::byte* place) {
  Member member;
  std::memcpy(&member, place, sizeof member);
  return member;
}

void add_value(const std::string& name, const ProtobufCFieldDescriptor& field,
               const std::byte* place, Fields& fields) {
  switch (field.type) {
    case PROTOBUF_C_TYPE_INT32:
    case PROTOBUF_C_TYPE_SINT32:
    case PROTOBUF_C_TYPE_SFIXED32:
      fields.push_back({name, int64_t{load<int32_t>(place)}});
      return;
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
      fields.push_back({name, load<int64_t>(place)});
      return;
    case PROTOBUF_C_TYPE_UINT32:
    case PROTOBUF_C_TYPE_FIXED32:
      fields.push_back({name, uint64_t{load<uint32_t>(place)}});
      return;
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
      fields.push_back({name, load<uint64_t>(place)});
      return;
    case PROTOBUF_C_TYPE_FLOAT:
      fields.push_back({name, double{load<float>(place)}});
      return;
    case PROTOBUF_C_TYPE_DOUBLE:
      fields.push_back({name, load<double>(place)});
      return;
    case PROTOBUF_C_TYPE_BOOL:
      fields.push_back({name, load<protobuf_c_boolean>(place) != 0});
      return;
    case PROTOBUF_C_TYPE_ENUM: {
      const auto* kind = static_cast<const ProtobufCEnumDescriptor*>(field.descriptor);
      fields.push_back({name, enum_name(*kind, load<int>(place))});
      return;
    }
    case PROTOBUF_C_TYPE_STRING:
      fields.push_back({name, std::string(load<const char*>(place))});
      return;
    case PROTOBUF_C_TYPE_BYTES: {
      const auto bytes = load<ProtobufCBinaryData>(place);
      fields.push_back({name, std::string(reinterpret_cast<const char*>(bytes.data), bytes.len)});
      return;
    }
    case PROTOBUF_C_TYPE_MESSAGE:
      add_fields(name + ".", *load<const ProtobufCMessage*>(place), fields);
      return;
  }
}

bool is_pointer(ProtobufCType type) {
  return type == PROTOBUF_C_TYPE_STRING || type == PROTOBUF_C_TYPE_MESSAGE;
}

std::size_t size_of(ProtobufCType type) {
  switch (type) {
    case PROTOBUF_C_TYPE_INT64:
    case PROTOBUF_C_TYPE_SINT64:
    case PROTOBUF_C_TYPE_SFIXED64:
    case PROTOBUF_C_TYPE_UINT64:
    case PROTOBUF_C_TYPE_FIXED64:
    case PROTOBUF_C_TYPE_DOUBLE:
      return 8;
    case PROTOBUF_C_TYPE_STRING:
    case PROTOBUF_C_TYPE_MESSAGE:
      return sizeof(void*);
    case PROTOBUF_C_TYPE_BYTES:
      return sizeof(ProtobufCBinaryData);
    default:
      return 4;
  }
}

// A text or a message is set when its pointer is not null; another optional field has a flag in its
// quantifier. The quantifier of a "oneof" is the number of the field that is set.
bool is_set(const ProtobufCFieldDescriptor& field, const std::byte* record) {
  if (is_pointer(field.type)) {
    const auto* target = load<const void*>(record + field.offset);
    if (target == nullptr || target == field.default_value) return false;
  }
  const std::byte* quantifier = record + field.quantifier_offset;
  if ((field.flags & PROTOBUF_C_FIELD_FLAG_ONEOF) != 0)
    return load<uint32_t>(quantifier) == field.id;
  if (field.label != PROTOBUF_C_LABEL_OPTIONAL || is_pointer(field.type)) return true;
  return load<protobuf_c_boolean>(quantifier) != 0;
}

void add_field(const std::string& prefix, const ProtobufCFieldDescriptor& field,
               const std::byte* record, Fields& fields) {
  const std::string name = prefix + field.name;
  if (field.label != PROTOBUF_C_LABEL_REPEATED) {
    if (is_set(field, record)) add_value(name, field, record + field.offset, fields);
    return;
  }
  const auto count = load<std::size_t>(record + field.quantifier_offset);
  const auto* values = load<const std::byte*>(record + field.offset);
  for (std::size_t i = 0; i < count; ++i) {
    add_value(fmt::format("{}[{}]", name, i), field, values + i * size_of(field.type), fields);
  }
}

uint64_t varint(std::string_view bytes) {
  uint64_t number = 0;
  for (std::size_t i = 0; i < std::min<std::size_t>(bytes.size(), 10); ++i) {
    number |= uint64_t{static_cast<unsigned char>(bytes[i]) & 0x7fU} << (7 * i);
  }
  return number;
}

template <typename Number>
uint64_t fixed(std::string_view bytes) {
  Number number = 0;
  std::memcpy(&number, bytes.data(), std::min(bytes.size(), sizeof number));
  return number;
}

// The value of an unknown field is a number or a text: the format on the wire tells no more.
Field::Value unknown_value(const ProtobufCMessageUnknownField& field) {
  const std::string_view bytes(reinterpret_cast<const char*>(field.data), field.len);
  switch (field.wire_type) {
    case PROTOBUF_C_WIRE_TYPE_VARINT:
      return varint(bytes);
    case PROTOBUF_C_WIRE_TYPE_32BIT:
      return fixed<uint32_t>(bytes);
    case PROTOBUF_C_WIRE_TYPE_64BIT:
      return fixed<uint64_t>(bytes);
    default: {
      const auto is_last = [](char c) { return (static_cast<unsigned char>(c) & 0x80U) == 0; };
      const auto length = std::find_if(bytes.begin(), bytes.end(), is_last);
      return std::string(length == bytes.end() ? length : length + 1, bytes.end());
    }
  }
}

void add_unknown(const std::string& prefix, const ProtobufCMessage& record, Fields& fields) {
  std::map<uint32_t, unsigned> seen;
  for (unsigned i = 0; i < record.n_unknown_fields; ++i) {
    const ProtobufCMessageUnknownField& field = record.unknown_fields[i];
    std::string name = fmt::format("{}unknown_{}", prefix, field.tag);
    if (const unsigned earlier = seen[field.tag]++; earlier > 0)
      name += fmt::format("[{}]", earlier);
    fields.push_back({std::move(name), unknown_value(field)});
  }
}

void add_fields(const std::string& prefix, const ProtobufCMessage& record, Fields& fields) {
  const auto* bytes = reinterpret_cast<const std::byte*>(&record);
  for (unsigned i = 0; i < record.descriptor->n_fields; ++i) {
    add_field(prefix, record.descriptor->fields[i], bytes, fields);
  }
  add_unknown(prefix, record, fields);
}

}  // namespace

std::vector<Field> fields_of(const ProtobufCMessage& record) {
  Fields fields;
  add_fields("", record, fields);
  return fields;
}

std::string enum_name(const ProtobufCEnumDescriptor& kind, int value) {
  const ProtobufCEnumValue* known = protobuf_c_enum_descriptor_get_value(&kind, value);
  if (known == nullptr) return std::to_string(value);
  const std::string_view name = known->name;
  const auto prefix = name.find('_');
  return std::string(prefix == std::string_view::npos ? name : name.substr(prefix + 1));
}

}  // namespace tavrix::events
