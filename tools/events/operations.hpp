// SPDX-License-Identifier: LGPL-3.0-or-later
// The operations that records tell of, by their numbers and by the words of people.
#pragma once

#include <bitset>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/history/schema.hpp"

namespace tavrix::events {

// Members are values of VFSEvent__OpType, and history::kReadOperation.
using Operations = std::bitset<history::kReadOperation + 1>;

// "MKDIR" for the number; "READ" for a read that was audited.
[[nodiscard]] std::string operation_name(int operation);

// The operations that a word stands for: a type as the records have it ("MKDIR"), or one of
// people's words ("delete", which is UNLINK and RMDIR). Several stand between commas. Nothing for
// any other text.
[[nodiscard]] std::optional<Operations> operations_of(std::string_view words);

// Every word that operations_of() knows, those of people first.
[[nodiscard]] std::vector<std::string> operation_words();
// "create, change, rename, delete, read, connect"
[[nodiscard]] std::string list_of_operation_words();

}  // namespace tavrix::events
