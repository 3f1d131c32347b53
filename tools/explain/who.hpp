// SPDX-License-Identifier: LGPL-3.0-or-later
// One question asked for every user of the group list map.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/explain/person.hpp"
#include "tools/json/document.hpp"

namespace tavrix::explain {

struct Asker {
  Person person;
  Facts facts;
};

struct Everybody {
  Question question;  // without a person
  std::vector<Asker> granted, refused, failed;
  std::vector<std::string> without_account;
};
[[nodiscard]] Everybody ask_everybody(const Question& question, const Groups& groups,
                                      const std::set<uint32_t>& reserved_uids);

// The users who may, by the entries or the class through which they may.
[[nodiscard]] std::map<std::string, std::vector<std::string>> folded(const Everybody& everybody);

// Adds the users to a document; those who are refused only if asked for.
void set_everybody(json::Json& document, const Everybody& everybody, bool with_refused);

}  // namespace tavrix::explain
