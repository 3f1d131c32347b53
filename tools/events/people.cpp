// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/events/people.hpp"

#include <pwd.h>
#include <charconv>
#include <vector>

namespace tavrix::events {
namespace {

constexpr std::size_t kRoom = 65536;

}  // namespace

std::optional<uint32_t> user_id(const std::string& name) {
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> room(kRoom);
  if (getpwnam_r(name.c_str(), &entry, room.data(), room.size(), &found) == 0 && found != nullptr)
    return found->pw_uid;
  uint32_t uid = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), uid);
  if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
  return uid;
}

const std::string& People::name_of(uint32_t uid) {
  const auto [place, is_new] = names_.try_emplace(uid);
  if (!is_new) return place->second;
  passwd entry{};
  passwd* found = nullptr;
  std::vector<char> room(kRoom);
  if (getpwuid_r(uid, &entry, room.data(), room.size(), &found) == 0 && found != nullptr)
    place->second = found->pw_name;
  return place->second;
}

std::string People::shown(uint32_t uid) {
  const std::string& name = name_of(uid);
  return name.empty() ? "user " + std::to_string(uid) : name;
}

}  // namespace tavrix::events
