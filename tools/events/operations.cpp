// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/operations.hpp"

#include <span>

#include "tools/events/record_fields.hpp"
#include "vfs_common.h"

namespace tavrix::events {
namespace {

constexpr const char* kRead = "READ";

struct Word {
  std::string_view word;
  std::vector<int> operations;
};

// A change of an open file is recorded as OPEN, at its close.
const std::vector<Word>& words_of_people() {
  static const std::vector<Word> kWords = {
      {"create", {VFSEVENT__OP_TYPE__OPTYPE_CREATE, VFSEVENT__OP_TYPE__OPTYPE_MKDIR}},
      {"change",
       {VFSEVENT__OP_TYPE__OPTYPE_OPEN, VFSEVENT__OP_TYPE__OPTYPE_CLOSE,
        VFSEVENT__OP_TYPE__OPTYPE_CHMOD}},
      {"rename", {VFSEVENT__OP_TYPE__OPTYPE_RENAME}},
      {"delete", {VFSEVENT__OP_TYPE__OPTYPE_UNLINK, VFSEVENT__OP_TYPE__OPTYPE_RMDIR}},
      {"read", {history::kReadOperation}},
      {"connect", {VFSEVENT__OP_TYPE__OPTYPE_CONNECT, VFSEVENT__OP_TYPE__OPTYPE_DISCONNECT}},
  };
  return kWords;
}

std::span<const ProtobufCEnumValue> types() {
  const ProtobufCEnumDescriptor& kind = vfsevent__op_type__descriptor;
  return {kind.values, kind.n_values};
}

bool add(std::string_view word, Operations& operations) {
  for (const Word& known : words_of_people()) {
    if (known.word != word) continue;
    for (const int operation : known.operations)
      operations.set(static_cast<std::size_t>(operation));
    return true;
  }
  if (word == kRead) {
    operations.set(history::kReadOperation);
    return true;
  }
  for (const ProtobufCEnumValue& type : types()) {
    if (operation_name(type.value) != word) continue;
    operations.set(static_cast<std::size_t>(type.value));
    return true;
  }
  return false;
}

}  // namespace

std::string operation_name(int operation) {
  if (operation == history::kReadOperation) return kRead;
  return enum_name(vfsevent__op_type__descriptor, operation);
}

std::optional<Operations> operations_of(std::string_view words) {
  Operations operations;
  for (bool is_last = false; !is_last;) {
    const auto comma = words.find(',');
    is_last = comma == std::string_view::npos;
    if (!add(words.substr(0, comma), operations)) return std::nullopt;
    if (!is_last) words.remove_prefix(comma + 1);
  }
  return operations;
}

std::vector<std::string> operation_words() {
  std::vector<std::string> words;
  for (const Word& known : words_of_people()) words.emplace_back(known.word);
  for (const ProtobufCEnumValue& type : types()) words.push_back(operation_name(type.value));
  words.emplace_back(kRead);
  return words;
}

std::string list_of_operation_words() {
  std::string list;
  for (const Word& known : words_of_people()) {
    list += (list.empty() ? "" : ", ") + std::string(known.word);
  }
  return list;
}

}  // namespace tavrix::events
