// SPDX-License-Identifier: LGPL-3.0-or-later
// Settles the temporary files of flushes that were killed.
#pragma once

namespace tavrix::sweeper {

// A file that alone has its records becomes a dump file. A file that is cut, or whose records are
// still in the buffer, is removed. A file that no flush wrote is set aside. Files of flushers that
// live stay as they are.
void settle_stranded_files();

}  // namespace tavrix::sweeper
