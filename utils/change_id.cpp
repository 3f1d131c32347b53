// SPDX-License-Identifier: LGPL-3.0-or-later
// The decision's switch to the superuser and back: effective user and group.

#include <unistd.h>

#include "internal/assert.hpp"
#include "perm_enforcer.h"

namespace tavrix {
namespace {

constexpr uid_t kNobodySaved = static_cast<uid_t>(-1);

uid_t save_uid = kNobodySaved;
gid_t save_gid = kNobodySaved;
// True when save_gid is also the real or the saved group: then a process that is no longer the
// superuser may take it back.
bool gid_needs_no_privilege = false;

void become_root() {
  uid_t real_uid = 0;
  uid_t saved_uid = 0;
  gid_t real_gid = 0;
  gid_t saved_gid = 0;
  if (getresuid(&real_uid, &save_uid, &saved_uid) != 0) save_uid = geteuid();
  if (getresgid(&real_gid, &save_gid, &saved_gid) != 0) save_gid = getegid();
  gid_needs_no_privilege = save_gid == real_gid || save_gid == saved_gid;
  // The user goes first, because only the superuser may take any group.
  if (save_uid != 0) static_cast<void>(seteuid(0));
  if (save_gid != 0) static_cast<void>(setegid(0));
}

void require_group() { TAVRIX_REQUIRE(setegid(save_gid) == 0, "setegid(save_gid) == 0"); }

// Gives back the user first, then the group. In a Samba server process that order cannot succeed:
// its real and saved gids are 0, and the right to take the client's gid goes away with the uid. So
// there the group goes back first, while the process is still the superuser. A process that cannot
// give both back ends: it would serve its client with the superuser's user or group.
void give_back() {
  const bool group_first = save_uid != 0 && save_gid != 0 && !gid_needs_no_privilege;
  if (group_first) require_group();
  if (save_uid != 0) TAVRIX_REQUIRE(seteuid(save_uid) == 0, "seteuid(save_uid) == 0");
  if (save_gid != 0 && !group_first) require_group();
}

}  // namespace
}  // namespace tavrix

using tavrix::save_gid;
using tavrix::save_uid;

void _change_id(int which) {
  if (which == TAVRIX_CHANGE_ID_ROOT) {
    TAVRIX_REQUIRE(save_uid == tavrix::kNobodySaved && save_gid == tavrix::kNobodySaved,
                   "save_uid == -1 && save_gid == -1");
    tavrix::become_root();
    return;
  }
  TAVRIX_REQUIRE(save_uid != tavrix::kNobodySaved && save_gid != tavrix::kNobodySaved,
                 "save_uid != -1 && save_gid != -1");
  tavrix::give_back();
  save_uid = tavrix::kNobodySaved;
  save_gid = tavrix::kNobodySaved;
}
