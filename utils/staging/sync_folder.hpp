// SPDX-License-Identifier: LGPL-3.0-or-later
// Puts the names in a folder on the disk.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "internal/scoped.hpp"

namespace tavrix {

// A name that was never synced can vanish with the power, and the file with it. No result: the
// callers' work is done by then, and a failure would change nothing for them.
inline void sync_folder(const char* dir) noexcept {
  const ErrnoKeeper keep;
  const Fd folder(open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder) fsync(folder.get());
}

}  // namespace tavrix
