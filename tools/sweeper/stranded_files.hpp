// SPDX-License-Identifier: LGPL-3.0-or-later
// Settles the temporary files of flushes that were killed.
#pragma once

#include <string>
#include <vector>

#include "tools/service/journal.hpp"
#include "utils/staging/dump_in_flight.hpp"

namespace tavrix::sweeper {

// A file that alone has its records becomes a dump file. A file that is cut, or whose records are
// still in the buffer, is removed. A file that no flush wrote is set aside. Files of flushers that
// live stay as they are. Says in the journal what became of each.
void settle_stranded_files();

// A temporary file and what became of it.
struct Stranded {
  Settled result = Settled::kGone;
  service::Tone tone = service::Tone::kInfo;
  std::string sentence;  // empty when there is nothing to say
};

// Settles the files of a node that is gone. Its buffer went with its memory, so its files alone
// have their records. A file that somebody has locked stays: its flusher lives, or another node
// settles it.
std::vector<Stranded> settle_files_of_gone_node(const std::string& folder);

}  // namespace tavrix::sweeper
