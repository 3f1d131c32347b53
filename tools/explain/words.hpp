// SPDX-License-Identifier: LGPL-3.0-or-later
// Names and rights as people read them.
#pragma once

#include <string>
#include <vector>

#include "tools/explain/changes.hpp"
#include "tools/groupmap/group_map.hpp"

namespace tavrix::explain {

// "read and write"; "nothing" for no right.
[[nodiscard]] std::string rights_text(uint32_t mask);
// "read", "write", "delete", "navigate", "view": one for each bit.
[[nodiscard]] std::vector<std::string> rights_of(uint32_t mask);

// Names of groups that the machine need not know: the reserved ones of the group list map.
void know_groups(const std::vector<groupmap::ReservedGroup>& groups);
// Empty for an id that nobody knows.
[[nodiscard]] std::string name_of(const Trustee& trustee);
// "Ben", or "user 1006".
[[nodiscard]] std::string text_of(const Person& person);
// "user Ben", "group 2001".
[[nodiscard]] std::string text_of(const Trustee& trustee);

// "a", "a and b", "a, b and c".
[[nodiscard]] std::string joined(const std::vector<std::string>& parts);

[[nodiscard]] const char* text_of(EntryUse use);

}  // namespace tavrix::explain
