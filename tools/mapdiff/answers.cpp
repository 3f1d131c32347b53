// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapdiff/answers.hpp"

namespace tavrix::mapdiff {
namespace {

// More are not kept; maps in use need a few hundred.
constexpr std::size_t kMostKnown = 100'000;

uint32_t ask(const explain::Person& person, const std::vector<explain::Entry>& entries,
             bool is_inherited) {
  const auto image = explain::Chain::to_team(entries, is_inherited).image();
  explain::Question question;
  question.person = person;
  question.path = TAVRIX_TREE "/Shared/Team";
  question.type = FSTYPE_FOLDER;
  question.map = image.data();
  const explain::Facts facts = explain::ask(question).facts;
  return facts.row ? facts.row->self : 0;
}

}  // namespace

Rights Answers::rights_of(const explain::Person& person, uint32_t kinds,
                          const std::vector<explain::Entry>& entries) {
  key_.assign(1, char32_t{kinds});
  for (const explain::Entry& entry : entries) {
    key_.push_back(static_cast<char32_t>(entry.trustee.is_user));
    key_.push_back(char32_t{entry.mask});
  }
  if (const auto found = known_.find(key_); found != known_.end()) return found->second;
  if (known_.size() >= kMostKnown) known_.clear();
  return known_[key_] = {ask(person, entries, false), ask(person, entries, true)};
}

}  // namespace tavrix::mapdiff
