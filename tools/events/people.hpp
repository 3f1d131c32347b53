// SPDX-License-Identifier: LGPL-3.0-or-later
// The names of users. Records have their numbers.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace tavrix::events {

// The account behind a name or a number as people type it; nothing for a name without an account.
[[nodiscard]] std::optional<uint32_t> user_id(const std::string& name);

// Asks the machine once for each user, because an answer may come from a directory server.
class People {
 public:
  // The name of the account; empty if there is none.
  const std::string& name_of(uint32_t uid);
  // The name, or "user 1005" for a number without an account.
  std::string shown(uint32_t uid);

 private:
  std::map<uint32_t, std::string> names_;
};

}  // namespace tavrix::events
