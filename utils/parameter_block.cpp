// SPDX-License-Identifier: LGPL-3.0-or-later
// The global parameter block: its creation and removal. What it holds is in eventstore.h.

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "logging.h"

struct global_param_s* global_params = nullptr;

namespace tavrix {
namespace {

constexpr int kEveryone = 0666;
constexpr unsigned kSecondsBetweenTries = 1;

struct NamedEntry {
  e_tavrix_global_index index;
  e_param_val_type type;
  const char* name;
};

// PARAM_PERMISSION_MAP_PATH and PARAM_MESSENGER_LOCKFILE_PATH have no row: nothing gives them a
// value, and readers of the block take a nameless entry for one that is not in use.
constexpr NamedEntry kNamedEntries[] = {
    {PARAM_DEFAULT_USER_ID, PARAM_VAL_TYPE_INT, "VFS:default user"},
    {PARAM_DEFAULT_GROUP_ID, PARAM_VAL_TYPE_INT, "VFS:default group"},
    {PARAM_REGEX_FILE_NAME, PARAM_VAL_TYPE_STRING, "VFS:exception pattern file"},
    {PARAM_DISABLE_SWEEPER_FLUSH, PARAM_VAL_TYPE_BOOLEAN, "SWEEPER:disable sweeper flush"},
    {PARAM_STAGING_BUFFER_SIZE, PARAM_VAL_TYPE_INT, "SWEEPER:staging buffer size"},
    {PARAM_FLUSH_PERIOD, PARAM_VAL_TYPE_INT, "SWEEPER:flush period"},
    {PARAM_STAGING_DIR, PARAM_VAL_TYPE_STRING, "SWEEPER:staging dir"},
    {PARAM_FLUSH_FILL_THRESHOLD, PARAM_VAL_TYPE_INT, "SWEEPER:flush fill threshold pct"},
    {PARAM_SOCKET_BACKLOG, PARAM_VAL_TYPE_INT, "MESSENGER:socket backlog"},
    {PARAM_SOCKET_MESSAGE_SIZE, PARAM_VAL_TYPE_INT, "MESSENGER:socket message size"},
    {PARAM_SOCKET_PATH, PARAM_VAL_TYPE_STRING, "MESSENGER:socket path"},
    {PARAM_CHECK_REGEX_UNLINK, PARAM_VAL_TYPE_INT, "VFS:check regex unlink"},
    {PARAM_DEBUG_LEVEL, PARAM_VAL_TYPE_INT, "VFS:debug level"},
    {PARAM_ENABLE_FORBIDDEN_RMDIR, PARAM_VAL_TYPE_BOOLEAN, "VFS:enable forbidden rmdir"},
    {PARAM_AUDITING_DIR, PARAM_VAL_TYPE_STRING, "SWEEPER:auditing dir"},
    {PARAM_AUDITING_BUFFER_SIZE, PARAM_VAL_TYPE_INT, "SWEEPER:auditing buffer size"},
    {PARAM_AUDITING_FLUSH_INTERVAL, PARAM_VAL_TYPE_INT, "SWEEPER:auditing flush interval"},
};

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
      TAVRIX_LOG(0, "%s: cannot create sema key for shm", static_cast<const char*>(__func__));
      return -1;
    }
    const int shmid =
        shmget(key, TAVRIX_PARAM_BLOCK_SIZE, IPC_CREAT | IPC_EXCL | tavrix::kEveryone);
    if (shmid != -1) {
      tavrix::ShmAttachment block(shmat(shmid, nullptr, 0));
      if (!block) {
        TAVRIX_LOG(0, "%s: cannot attach to shm Errno %d", static_cast<const char*>(__func__),
                   errno);
        return -1;
      }
      auto* params = static_cast<global_param_s*>(block.release());  // attached for good
      tavrix::lay_out(params);
      global_params = params;
      return 0;
    }
    const int error = errno;
    TAVRIX_LOG(0, "%s: cannot create shared memory for global param error_no=%d error_sz=%s",
               static_cast<const char*>(__func__), error, strerror(error));
    if (error != EEXIST || has_retried) return -1;

    // One stale block of an earlier run is taken away; a second one is a rival's.
    TAVRIX_LOG(0,
               "%s: cannot create shared memory for global param error_no=%d error_sz=%s will "
               "remove and retry",
               static_cast<const char*>(__func__), error, strerror(error));
    sleep(tavrix::kSecondsBetweenTries);
    if (remove_config_buffer() != 0) {
      TAVRIX_LOG(0, "%s: cannot remove shared memory for global param.",
                 static_cast<const char*>(__func__));
      return -1;
    }
    sleep(tavrix::kSecondsBetweenTries);
    TAVRIX_LOG(0, "%s: success removing shared memory for global param will try to re-create.",
               static_cast<const char*>(__func__));
  }
}

int remove_config_buffer(void) {
  const key_t key = tavrix::block_key();
  if (key == -1) {
    TAVRIX_LOG(0, "%s: cannot get sema key for shm", static_cast<const char*>(__func__));
    return key;
  }
  const int shmid = shmget(key, TAVRIX_PARAM_BLOCK_SIZE, tavrix::kEveryone);
  if (shmid == -1) {
    TAVRIX_LOG(0, "%s: cannot get shared memory for global param",
               static_cast<const char*>(__func__));
    return -1;
  }
  shmctl(shmid, IPC_RMID, nullptr);
  return 0;
}
