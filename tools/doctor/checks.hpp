// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks of the machine for what breaks shares, with advice. They read and change nothing.
#pragma once

#include <string>
#include <vector>

#include "tools/status/judge.hpp"

namespace tavrix::doctor {

using status::Level;

struct Check {
  std::string id;  // stable, such as "case-settings"
  Level level = Level::kWell;
  std::string sentence;  // what was found
  std::string advice;    // empty when there is nothing to do
};
using Checks = std::vector<Check>;

struct Places {
  std::string smb_conf;  // empty: the server's own
  std::string inbox = "/var/lib/tavrix/maps";
};

Checks check_all(const Places& places);

// Does the login manager, or a private IPC namespace, take the shared objects away?
Check check_remove_ipc();
Check check_private_ipc();
// Does the file system of the tree keep extended attributes of users?
Check check_attributes();
// Are the folders there, and closed to others? One check a folder that is not in order.
Checks check_folders(const std::string& inbox);
// Can a flush link its dump files for the history? Only files of one file system can be linked.
Check check_history();
// May a map use huge pages?
Check check_huge_pages();
// Is Samba's library of name comparisons there, under the name that is opened?
Check check_comparison_library();
// Was the module built for the installed server?
Check check_module();
// The server's settings of the shares that have the module, as testparm tells them.
Checks check_server_settings(const std::string& smb_conf);

Level worst(const Checks& checks);

}  // namespace tavrix::doctor
