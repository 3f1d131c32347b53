// SPDX-License-Identifier: LGPL-3.0-or-later
// The private snapshot of the parameter block. A server process reads its settings from it.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "parameter_block.h"
#include "tavrix_vfs_utils.h"

namespace tavrix {
namespace {

constexpr int kEveryone = 0666;

// The buffer of this process. The creator of the block points global_params at shared memory
// instead, which must never be reallocated or freed.
global_param_s* snapshot = nullptr;

// false when out of memory; there is no snapshot then.
bool grow_snapshot() {
  const bool is_first = snapshot == nullptr || global_params != snapshot;
  auto* grown = static_cast<global_param_s*>(std::realloc(snapshot, TAVRIX_PARAM_BLOCK_SIZE));
  if (grown == nullptr) {
    std::free(snapshot);
    snapshot = nullptr;
    global_params = nullptr;
    return false;
  }
  // Until the block is copied, the previous settings hold, or zeros.
  if (is_first) {
    if (global_params != nullptr) {
      std::memcpy(grown, global_params, TAVRIX_PARAM_BLOCK_SIZE);
    } else {
      std::memset(grown, 0, TAVRIX_PARAM_BLOCK_SIZE);
    }
  }
  snapshot = grown;
  global_params = grown;
  return true;
}

}  // namespace
}  // namespace tavrix

int read_tavrix_config(void) {
  if (!tavrix::grow_snapshot()) {
    TAVRIX_LOG(0, "could not allocate global_params buffer\n");
    return -1;
  }
  const key_t key = ftok(TAVRIX_PARAM_KEY_PATH, TAVRIX_PARAM_KEY_ID);
  if (key == -1) {
    TAVRIX_LOG(0, "cannot create sema key for shm. errno = %d(%s)\n", errno, strerror(errno));
    return -1;
  }
  const int shmid = shmget(key, TAVRIX_PARAM_BLOCK_SIZE, IPC_CREAT | tavrix::kEveryone);
  if (shmid == -1) {
    TAVRIX_LOG(0, "cannot create shared memory for global param. errno = %d(%s)\n", errno,
               strerror(errno));
    return -1;
  }
  const tavrix::ShmAttachment block(shmat(shmid, nullptr, 0));
  if (!block) {
    TAVRIX_LOG(0, "cannot attach to shm. errno = %d(%s)\n", errno, strerror(errno));
    return -1;
  }
  std::memcpy(global_params, block.get(), TAVRIX_PARAM_BLOCK_SIZE);
  TAVRIX_LOG(5, "tavrix:%s have read tavrix config\n", __func__);
  return 0;
}
