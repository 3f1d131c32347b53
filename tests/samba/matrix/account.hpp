// SPDX-License-Identifier: LGPL-3.0-or-later
// The account of one case: what was on the disk before and after, what was recorded, what the
// client was told; and everything about it that must not be so.
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

// Empty: nothing was changed that the caller may not change, the events replay to what is on the
// disk, each by the caller and each change told, and no name was told that the map hides.
std::vector<std::string> complaints_about(const Account& account);

// The events since the last call.
std::vector<Event> take_events();

}  // namespace tavrix::test
