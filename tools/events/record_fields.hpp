// SPDX-License-Identifier: LGPL-3.0-or-later
// Lists the fields of a record by the description that the protobuf compiler makes of them. So a
// field that is new in a .proto file is listed, and so is one that only a newer writer knows.
#pragma once

#include <protobuf-c/protobuf-c.h>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace tavrix::events {

struct Field {
  using Value = std::variant<bool, int64_t, uint64_t, double, std::string>;

  // The name in the .proto file: "path". A value of a repeated field has an index, "hop[0]". A
  // field of a message within the record has the name of the message in front, "peer.address". A
  // field that is not in the .proto file has its number, "unknown_12".
  std::string name;
  Value value;  // of an enumeration, the name
};

// The fields that are set, in the order of the .proto file; unknown ones come last.
std::vector<Field> fields_of(const ProtobufCMessage& record);

// The name of a value without the prefix of its enumeration: "CLOSE" for OPTYPE_CLOSE. The number
// when the enumeration does not have it.
std::string enum_name(const ProtobufCEnumDescriptor& kind, int value);

}  // namespace tavrix::events
