// SPDX-License-Identifier: LGPL-3.0-or-later
// A node that is gone: another one settles what its killed processes left in the shared tree.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/cluster/members.hpp"
#include "tools/cluster/members_ctdb.hpp"
#include "tools/ctl/settings_file.hpp"
#include "tools/sweeper/stranded_files.hpp"

namespace tavrix::cluster {

// Says why a node may still live; nothing for one that is gone. It is gone when it has been silent
// for so many seconds, and its mark was taken or CTDB has lost it. `ctdb` is empty where it is not
// known.
[[nodiscard]] std::optional<std::string> reason_to_wait(const Member& member,
                                                        const std::optional<Ctdb>& ctdb,
                                                        int64_t silence);

struct Adoption {
  std::vector<sweeper::Stranded> files;
  int notes = 0;        // of open files: their events are in this node's buffer
  std::string problem;  // why something was left; empty when all is settled
};
// Settles the files and the notes of the node. One process does so at a time; what it leaves when
// it is killed, the next one settles. This process has the settings of the block.
[[nodiscard]] Adoption adopt(const std::string& node, const ctl::SettingsFile& settings);

}  // namespace tavrix::cluster
