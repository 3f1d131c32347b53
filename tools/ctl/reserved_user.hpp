// SPDX-License-Identifier: LGPL-3.0-or-later
// The reserved user, by the server's settings.
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace tavrix::ctl {

// The uids of the accounts that shares name as their reserved user; the module knows it by its uid.
std::set<uint32_t> reserved_uids(const std::string& smb_conf);

}  // namespace tavrix::ctl
