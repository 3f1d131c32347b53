// SPDX-License-Identifier: LGPL-3.0-or-later
// The fields of a record, by the description that the protobuf compiler makes of them: a field that
// is new in a .proto file shows itself, and so does one that only a newer writer knows.
#pragma once

#include <protobuf-c/protobuf-c.h>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace tavrix::events {

struct Field {
  using Value = std::variant<bool, int64_t, uint64_t, double, std::string>;

  // The name in the .proto file: "path". A value of a repeated field has its place too, "hop[0]",
  // and a field of a message within the record the way to it, "peer.address". A field that the
  // .proto file does not have is named by its number: "unknown_12".
  std::string name;
  Value value;  // a name for an enumeration, the bytes for a text
};

// The fields that are set, in the order of the .proto file; unknown ones come last.
std::vector<Field> fields_of(const ProtobufCMessage& record);

// An enumeration's value without the prefix of its kind: "CLOSE" of OPTYPE_CLOSE. A number that the
// enumeration does not have stays a number.
std::string enum_name(const ProtobufCEnumDescriptor& kind, int value);

}  // namespace tavrix::events
