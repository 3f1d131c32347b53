// SPDX-License-Identifier: LGPL-3.0-or-later
// An explained decision, for people and for programs.
#pragma once

#include <string>
#include <vector>

#include "tools/explain/changes.hpp"
#include "tools/explain/person.hpp"
#include "tools/json/document.hpp"

namespace tavrix::explain {

struct Report {
  Question question;
  Answer answer;
  Groups::State group_map = Groups::State::kRead;
  GroupSource source = GroupSource::kNowhere;
  bool is_about_new_file = false;  // the question was about writing in a folder
  std::vector<Gift> would_grant;
  std::vector<Gift> would_grant_alone;  // for the caller alone, if the former is for a group
  std::vector<Removal> would_refuse;
};

// Adds to an answer what would turn its verdict.
[[nodiscard]] Report explain(const Question& question, Answer answer);

// The sentences that stand before the verdict, because it is worth less without them: no group map,
// no such object.
[[nodiscard]] std::vector<std::string> warnings(const Report& report);

// The whole way to the verdict, in lines.
[[nodiscard]] std::vector<std::string> screen(const Report& report);

// Adds the keys of the explanation to a document.
void set_explanation(json::Json& document, const Report& report);

}  // namespace tavrix::explain
