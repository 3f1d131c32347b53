// SPDX-License-Identifier: LGPL-3.0-or-later
// Sentences about the state, the same on the screen of "tavrixctl status" and in the status lines
// of the services.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/status/machine.hpp"

namespace tavrix::status {

// "table 1 is current: 8 folders, 11 entries, 841 bytes"
std::string current_map_text(int table, uint32_t folders, uint32_t entries, uint64_t bytes);
// "flushing every 5 seconds", or "flushing is disabled"
std::string flushing_text(bool is_disabled, int period);
// "3 records wait, 190 B of 1.0 MiB used"
std::string buffer_text(uint64_t records, uint64_t used, uint64_t bytes);

std::string duration_text(int64_t seconds);  // "3 minutes"
std::string size_text(uint64_t bytes);       // "1.2 MiB"
// "smbd (123), smbd (124)"; says so when it is not known.
std::string holders_text(const std::optional<std::vector<Process>>& holders);

}  // namespace tavrix::status
