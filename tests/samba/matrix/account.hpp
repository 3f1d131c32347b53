// SPDX-License-Identifier: LGPL-3.0-or-later
// The account of one case: the disk before and after, the events, and the names that the client was
// shown; and the check of these against the policy.
#pragma once

#include <string>
#include <vector>

#include "tests/samba/matrix/disk.hpp"
#include "tests/samba/matrix/robot.hpp"
#include "tests/support/event_store.hpp"
#include "tests/support/map_model.hpp"
#include "tests/support/share.hpp"

namespace tavrix::test {

struct Account {
  const Caller* caller = nullptr;
  const Folder* map = nullptr;
  Json request = Json::object();
  Json answer = Json::object();
  Disk before;
  Disk after;
  std::vector<Event> events;
};

// The complaints about a case. Empty when the caller changed only what it may change, the events
// replay to what is on the disk, each of them by the caller, and no hidden name was shown.
std::vector<std::string> complaints_about(const Account& account);

// The events since the last call.
std::vector<Event> take_events();

}  // namespace tavrix::test
