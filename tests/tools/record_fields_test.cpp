// SPDX-License-Identifier: LGPL-3.0-or-later
// Fields of every kind, by the description of a record that no .proto file has.

#include <gtest/gtest.h>
#include <cstddef>
#include <map>

#include "tools/events/record_fields.hpp"
#include "vfs_common.h"

namespace tavrix::test {
namespace {

using events::Field;

struct Everything {
  ProtobufCMessage base;
  int32_t small = -3;
  uint64_t large = 1ULL << 40;
  double share = 0.5;
  protobuf_c_boolean has_is_last = 1, is_last = 1;
  char* text = nullptr;
  ProtobufCBinaryData bytes{};
  int op = 6;
  std::size_t n_hops = 0;
  uint32_t* hops = nullptr;
  AuditEvent* inner = nullptr;
  uint32_t choice = 0;
  int32_t chosen = 5, other = 6;
};

constexpr ProtobufCFieldDescriptor field(const char* name, uint32_t id, ProtobufCLabel label,
                                         ProtobufCType type, unsigned quantifier, unsigned offset,
                                         const void* descriptor = nullptr, uint32_t flags = 0) {
  return {name,       id,      label, type, quantifier, offset,
          descriptor, nullptr, flags, 0,    nullptr,    nullptr};
}

constexpr auto kRequired = PROTOBUF_C_LABEL_REQUIRED;
constexpr auto kOptional = PROTOBUF_C_LABEL_OPTIONAL;
constexpr auto kRepeated = PROTOBUF_C_LABEL_REPEATED;

const ProtobufCFieldDescriptor kFields[] = {
    field("small", 1, kRequired, PROTOBUF_C_TYPE_SINT32, 0, offsetof(Everything, small)),
    field("large", 2, kRequired, PROTOBUF_C_TYPE_UINT64, 0, offsetof(Everything, large)),
    field("share", 3, kRequired, PROTOBUF_C_TYPE_DOUBLE, 0, offsetof(Everything, share)),
    field("is_last", 4, kOptional, PROTOBUF_C_TYPE_BOOL, offsetof(Everything, has_is_last),
          offsetof(Everything, is_last)),
    field("text", 5, kOptional, PROTOBUF_C_TYPE_STRING, 0, offsetof(Everything, text)),
    field("bytes", 6, kRequired, PROTOBUF_C_TYPE_BYTES, 0, offsetof(Everything, bytes)),
    field("op", 7, kRequired, PROTOBUF_C_TYPE_ENUM, 0, offsetof(Everything, op),
          &vfsevent__op_type__descriptor),
    field("hops", 8, kRepeated, PROTOBUF_C_TYPE_UINT32, offsetof(Everything, n_hops),
          offsetof(Everything, hops)),
    field("inner", 9, kOptional, PROTOBUF_C_TYPE_MESSAGE, 0, offsetof(Everything, inner),
          &audit_event__descriptor),
    field("chosen", 10, kOptional, PROTOBUF_C_TYPE_INT32, offsetof(Everything, choice),
          offsetof(Everything, chosen), nullptr, PROTOBUF_C_FIELD_FLAG_ONEOF),
    field("other", 11, kOptional, PROTOBUF_C_TYPE_INT32, offsetof(Everything, choice),
          offsetof(Everything, other), nullptr, PROTOBUF_C_FIELD_FLAG_ONEOF),
};

class RecordFields : public testing::Test {
 protected:
  void SetUp() override {
    descriptor_.n_fields = std::size(kFields);
    descriptor_.fields = kFields;
    record_.base.descriptor = &descriptor_;
  }
  std::map<std::string, Field::Value> fields() {
    std::map<std::string, Field::Value> all;
    for (Field& each : events::fields_of(record_.base)) {
      EXPECT_TRUE(all.emplace(each.name, each.value).second) << each.name;
    }
    return all;
  }

  ProtobufCMessageDescriptor descriptor_{};
  Everything record_{};
};

TEST_F(RecordFields, AreOfEveryKind) {
  uint32_t hops[] = {7, 9};
  AuditEvent inner = AUDIT_EVENT__INIT;
  inner.path = const_cast<char*>("p");
  uint8_t bytes[] = {'a', 0, 'b'};
  record_.text = const_cast<char*>("t");
  record_.bytes = {sizeof bytes, bytes};
  record_.n_hops = 2;
  record_.hops = hops;
  record_.inner = &inner;
  record_.choice = 11;
  const std::map<std::string, Field::Value> expected = {
      {"small", int64_t{-3}},
      {"large", uint64_t{1ULL << 40}},
      {"share", 0.5},
      {"is_last", true},
      {"text", std::string("t")},
      {"bytes", std::string("a\0b", 3)},
      {"op", std::string("CLOSE")},
      {"hops[0]", uint64_t{7}},
      {"hops[1]", uint64_t{9}},
      {"inner.path", std::string("p")},
      {"inner.uid", uint64_t{0}},
      {"inner.time_sec", int64_t{0}},
      {"inner.size", uint64_t{0}},
      {"other", int64_t{6}},
  };
  EXPECT_EQ(expected, fields());
}

TEST_F(RecordFields, LeavesOutWhatIsNotSet) {
  record_.has_is_last = 0;
  const auto all = fields();
  for (const char* name : {"is_last", "text", "hops[0]", "inner.path", "chosen", "other"}) {
    EXPECT_EQ(0U, all.count(name)) << name;
  }
}

TEST_F(RecordFields, ShowsANumberThatAnEnumerationDoesNotHave) {
  record_.op = 99;
  EXPECT_EQ(Field::Value(std::string("99")), fields().at("op"));
}

}  // namespace
}  // namespace tavrix::test
