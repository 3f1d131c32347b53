// SPDX-License-Identifier: LGPL-3.0-or-later
// Questions as an operator asks them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/explain/person.hpp"

namespace tavrix::explain {

struct Request {
  Question question;               // without a person
  bool is_about_new_file = false;  // about writing in a folder
};

// The question as a server process asks it: below the tree even if the operator gives another root,
// because a decision skips the length of the tree's own name. Nothing for a word that is no
// operation.
[[nodiscard]] std::optional<Request> request_for(const std::string& operation,
                                                 const std::string& path, const std::string& root);

// Tells the decision which groups are the administrators' and the power users': those given (not
// negative), else those of the group list map, as a connection takes them, else the machine's.
void take_reserved_groups(const Groups& groups, int64_t administrators = -1,
                          int64_t power_users = -1);

// "create, read, write ...; exactly: open-read ..."
[[nodiscard]] std::string list_of_operations();

}  // namespace tavrix::explain
