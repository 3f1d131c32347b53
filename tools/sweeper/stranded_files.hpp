// SPDX-License-Identifier: LGPL-3.0-or-later
// Temporary files of flushes that were killed.
#pragma once

namespace tavrix::sweeper {

// Gives each of them what it needs: those that alone have their records become dump files, those
// whose records are in the buffer, or that are cut, go, and others are set aside. Files of flushers
// that live stay as they are.
void settle_stranded_files();

}  // namespace tavrix::sweeper
