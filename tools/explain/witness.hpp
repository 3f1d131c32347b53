// SPDX-License-Identifier: LGPL-3.0-or-later
// Asks the decision, and keeps what its observer is told.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tavrix_structs.h"
#include "tools/explain/chain.hpp"
#include "tools/explain/facts.hpp"

namespace tavrix::explain {

// The account for which a question is asked.
struct Person {
  std::string name;  // empty for an id without an account
  uint32_t uid = 0;
  uint32_t gid = 0;
  std::vector<uint32_t> groups;
  bool is_reserved = false;
  bool is_computer = false;
};

struct Question {
  std::string root = TAVRIX_TREE;
  std::string path;  // absolute, below the tree
  e_fsop_type op = FSOP_STAT;
  Person person;
  std::optional<e_file_type> type;  // nothing: look at the object
  const void* map = nullptr;        // a sound image; null: the current table
};

struct Answer {
  Facts facts;
  std::optional<Chain> chain;  // nothing: the map was not asked
};

[[nodiscard]] Answer ask(const Question& question);

}  // namespace tavrix::explain
