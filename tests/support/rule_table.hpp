// SPDX-License-Identifier: LGPL-3.0-or-later
// The policy once more, as a table for people; its reader shares nothing with the library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tavrix_perms.h"
#include "tavrix_structs.h"

namespace tavrix::test {

struct RuleAnswer {
  bool aborts = false;
  bool granted = false;
  std::string message;  // empty: the rule logs nothing
};

// The answer that the rule must give; `op` must be a real operation.
RuleAnswer rule_says(e_fsop_type op, e_file_type type, uint32_t self, uint32_t parent);

// All operations, those that have a rule, and those that end the process.
std::vector<e_fsop_type> all_operations();
std::vector<e_fsop_type> operations_with_a_rule();
std::vector<e_fsop_type> operations_without_a_rule();

std::string name_of(e_fsop_type op);

}  // namespace tavrix::test
