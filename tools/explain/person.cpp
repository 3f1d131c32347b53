// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/person.hpp"

#include <grp.h>
#include <pwd.h>
#include <strings.h>
#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>

#include "tavrix_getgrouplist.h"
#include "tavrix_vfs_utils.h"

namespace tavrix::explain {
namespace {

// A settings file without these words names no reserved user, directly or elsewhere.
constexpr const char* kNamers[] = {"reserved user", "include", "registry"};

std::optional<uint32_t> reserved(const groupmap::GroupMap& map, const char* name) {
  for (const groupmap::ReservedGroup& group : map.reserved) {
    if (strcasecmp(group.name.c_str(), name) == 0) return group.gid;
  }
  return std::nullopt;
}

std::vector<uint32_t> groups_of_machine(const char* user, gid_t gid) {
  int count = 65536;
  std::vector<gid_t> groups(static_cast<std::size_t>(count));
  getgrouplist(user, gid, groups.data(), &count);
  groups.resize(static_cast<std::size_t>(std::max(count, 0)));
  return {groups.begin(), groups.end()};
}

Identity identity_of(const passwd& account, const Groups& groups) {
  Identity identity;
  Person& person = identity.person;
  person.name = account.pw_name;
  person.uid = account.pw_uid;
  person.gid = account.pw_gid;
  person.is_computer = is_computer_name(account.pw_name) != 0;
  if (groups.state == Groups::State::kRead) {
    const groupmap::User* user = groups.find(person.name);
    identity.source = GroupSource::kGroupMap;
    if (user != nullptr) person.groups = user->gids;
  } else {
    identity.source = GroupSource::kMachine;
    person.groups = groups_of_machine(account.pw_name, account.pw_gid);
  }
  return identity;
}

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\n") - first + 1);
}

}  // namespace

std::optional<uint32_t> Groups::administrators() const { return reserved(map, "tavrix-admins"); }
std::optional<uint32_t> Groups::power_users() const { return reserved(map, "tavrix-powerusers"); }

const groupmap::User* Groups::find(const std::string& user) const {
  const auto found =
      std::find_if(map.users.begin(), map.users.end(), [&user](const groupmap::User& entry) {
        return strcasecmp(entry.name.c_str(), user.c_str()) == 0;
      });
  return found == map.users.end() ? nullptr : &*found;
}

Groups current_groups() { return groups_in(TAVRIX_GROUPMAP_PATH); }

Groups groups_in(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  auto map = groupmap::decode(std::string{std::istreambuf_iterator<char>(in), {}});
  if (!map) return {Groups::State::kBroken, {}};
  return {Groups::State::kRead, std::move(*map)};
}

std::optional<Identity> person_named(const std::string& name, const Groups& groups) {
  const passwd* account = getpwnam(name.c_str());
  if (account == nullptr) return std::nullopt;
  return identity_of(*account, groups);
}

std::optional<Identity> person_with(uint32_t uid, const Groups& groups) {
  const passwd* account = getpwuid(uid);
  if (account == nullptr) return std::nullopt;
  return identity_of(*account, groups);
}

std::optional<uint32_t> machine_group(const std::string& name) {
  const group* entry = getgrnam(name.c_str());
  if (entry == nullptr) return std::nullopt;
  return entry->gr_gid;
}

std::vector<std::string> reserved_users_in(const std::string& settings) {
  std::vector<std::string> names;
  std::istringstream in(settings);
  for (std::string line; std::getline(in, line);) {
    const auto equals = line.find('=');
    if (equals != std::string::npos && trimmed(line.substr(0, equals)) == "tavrix:reserved user") {
      names.push_back(trimmed(line.substr(equals + 1)));
    }
  }
  return names;
}

bool may_name_reserved_user(const std::string& smb_conf) {
  std::ifstream in(smb_conf);
  for (std::string line; std::getline(in, line);) {
    line = trimmed(line);
    if (line.starts_with('#') || line.starts_with(';')) continue;
    if (std::any_of(std::begin(kNamers), std::end(kNamers),
                    [&line](const char* word) { return line.find(word) != std::string::npos; })) {
      return true;
    }
  }
  return false;
}

}  // namespace tavrix::explain
