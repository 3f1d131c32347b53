// SPDX-License-Identifier: LGPL-3.0-or-later
// The global parameter block: its creation and removal. parameter_block.h has its
// layout, utils/settings_table.hpp its entries.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <array>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "parameter_block.h"
#include "utils/settings_table.hpp"

struct global_param_s* global_params = nullptr;

namespace tavrix {
namespace {

constexpr int kEveryone = 0666;
constexpr unsigned kSecondsBetweenTries = 1;

// The part of a setting that stands in the block. The copy is made by the compiler, so the library
// carries the names only, without the texts for operators.
struct NamedEntry {
  e_tavrix_global_index index;
  e_param_val_type type;
  const char* name;
};

constexpr auto kNamedEntries = [] {
  std::array<NamedEntry, kSettingCount> entries{};
  for (std::size_t i = 0; i < kSettingCount; ++i) {
    entries[i] = {kSettings[i].index, kSettings[i].type, kSettings[i].name};
  }
  return entries;
}();

key_t block_key() { return ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID); }

void lay_out(global_param_s* params) {
  std::memset(params, 0, TAVRIX_PARAM_BLOCK_SIZE);
  for (const NamedEntry& entry : kNamedEntries) {
    params[entry.index].type = entry.type;
    params[entry.index].varname = entry.name;
  }
}

}  // namespace
}  // namespace tavrix

int create_config_buffer(void) {
  for (bool has_retried = false;; has_retried = true) {
    const key_t key = tavrix::block_key();
    if (key == -1) {
      TAVRIX_LOG(0, "%s: cannot create sema key for shm", __func__);
      return -1;
    }
    const int shmid =
        shmget(key, TAVRIX_PARAM_BLOCK_SIZE, IPC_CREAT | IPC_EXCL | tavrix::kEveryone);
    if (shmid != -1) {
      tavrix::ShmAttachment block(shmat(shmid, nullptr, 0));
      if (!block) {
        TAVRIX_LOG(0, "%s: cannot attach to shm Errno %d", __func__, errno);
        return -1;
      }
      auto* params = static_cast<global_param_s*>(block.release());  // attached for good
      tavrix::lay_out(params);
      global_params = params;
      return 0;
    }
    const int error = errno;
    TAVRIX_LOG(0, "%s: cannot create shared memory for global param error_no=%d error_sz=%s",
               __func__, error, strerror(error));
    if (error != EEXIST || has_retried) return -1;

    // The first block that is in the way is left over from an earlier run and is removed. A second
    // one belongs to a rival.
    TAVRIX_LOG(0,
               "%s: cannot create shared memory for global param error_no=%d error_sz=%s will "
               "remove and retry",
               __func__, error, strerror(error));
    sleep(tavrix::kSecondsBetweenTries);
    if (remove_config_buffer() != 0) {
      TAVRIX_LOG(0, "%s: cannot remove shared memory for global param.", __func__);
      return -1;
    }
    sleep(tavrix::kSecondsBetweenTries);
    TAVRIX_LOG(0, "%s: success removing shared memory for global param will try to re-create.",
               __func__);
  }
}

int remove_config_buffer(void) {
  const key_t key = tavrix::block_key();
  if (key == -1) {
    TAVRIX_LOG(0, "%s: cannot get sema key for shm", __func__);
    return key;
  }
  const int shmid = shmget(key, TAVRIX_PARAM_BLOCK_SIZE, tavrix::kEveryone);
  if (shmid == -1) {
    TAVRIX_LOG(0, "%s: cannot get shared memory for global param", __func__);
    return -1;
  }
  shmctl(shmid, IPC_RMID, nullptr);
  return 0;
}
