// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/shared_settings.hpp"

#include <sys/ipc.h>
#include <sys/shm.h>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tools/ctl/output.hpp"

namespace tavrix::ctl {

bool use_shared_settings() {
  const int shmid = shmget(ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID), 0, 0);
  if (shmid == -1) {
    complain_as(code::kNoSettings,
                "there is no parameter block; \"tavrixctl config load FILE\" makes one");
    return false;
  }
  if (read_tavrix_config() == 0) return true;
  complain("cannot read the parameter block");
  return false;
}

}  // namespace tavrix::ctl
