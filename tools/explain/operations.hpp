// SPDX-License-Identifier: LGPL-3.0-or-later
// The operations by name, and the words that people use for them.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tavrix_perms.h"
#include "tavrix_structs.h"

namespace tavrix::explain {

// An operation, and the name of a new object in the folder if the question is about one in it.
struct Asked {
  e_fsop_type op = FSOP_STAT;
  std::string name_below;
};

// An exact operation, such as "open-write" or "FSOP_OPEN_WRITE", or a word such as "write", whose
// operation depends on the object. Nothing for other words, and for operations without a rule: the
// library ends a process that asks about one.
[[nodiscard]] std::optional<Asked> operation_for(std::string word, e_file_type object);

[[nodiscard]] std::string name_of(e_fsop_type op);
[[nodiscard]] std::vector<std::string> exact_operations();
[[nodiscard]] std::vector<std::string> words_of_people();

}  // namespace tavrix::explain
