// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/words.hpp"

#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <array>
#include <map>

namespace tavrix::explain {
namespace {

std::map<uint32_t, std::string> known_groups;

}  // namespace

void know_groups(const std::vector<groupmap::ReservedGroup>& groups) {
  for (const groupmap::ReservedGroup& group : groups) known_groups[group.gid] = group.name;
}

std::vector<std::string> rights_of(uint32_t mask) {
  static constexpr std::array<const char*, 5> kNames = {"read", "write", "delete", "navigate",
                                                        "view"};
  std::vector<std::string> names;
  for (std::size_t bit = 0; bit < kNames.size(); ++bit) {
    if ((mask >> bit & 1U) != 0) names.emplace_back(kNames.at(bit));
  }
  return names;
}

std::string joined(const std::vector<std::string>& parts) {
  std::string text;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (i > 0) text += i + 1 == parts.size() ? " and " : ", ";
    text += parts[i];
  }
  return text;
}

std::string rights_text(uint32_t mask) {
  const auto names = rights_of(mask);
  return names.empty() ? "nothing" : joined(names);
}

std::string name_of(const Trustee& trustee) {
  if (trustee.is_user) {
    const passwd* account = getpwuid(trustee.id);
    return account == nullptr ? "" : account->pw_name;
  }
  if (const group* entry = getgrgid(trustee.id); entry != nullptr) return entry->gr_name;
  const auto found = known_groups.find(trustee.id);
  return found == known_groups.end() ? "" : found->second;
}

std::string text_of(const Trustee& trustee) {
  const std::string name = name_of(trustee);
  return fmt::format("{} {}", trustee.is_user ? "user" : "group",
                     name.empty() ? std::to_string(trustee.id) : name);
}

std::string text_of(const Person& person) {
  return person.name.empty() ? fmt::format("user {}", person.uid) : person.name;
}

const char* text_of(EntryUse use) {
  switch (use) {
    case EntryUse::kCounts:
      return "counts";
    case EntryUse::kAnotherUser:
      return "another user";
    case EntryUse::kNotAMember:
      return "not a member";
    case EntryUse::kInheritedNavigation:
      return "inherited, with navigate: that does not pass down";
    case EntryUse::kLaterEntry:
      return "an earlier entry of the user counts";
    case EntryUse::kSilenced:
      return "the user's own entry decides";
  }
  return "";
}

}  // namespace tavrix::explain
