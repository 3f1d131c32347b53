// SPDX-License-Identifier: LGPL-3.0-or-later
// Alarms: files that tell the synchronisation agent that it cannot trust its view of the tree.

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "eventstore.h"
#include "internal/assert.hpp"
#include "internal/scoped.hpp"
#include "logging.h"
#include "utils/root_scope.hpp"
#include "utils/staging/staging.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix {
namespace {

constexpr mode_t kSyncOffMode = 0666;
constexpr mode_t kRescanMode = 0744;
constexpr std::string_view kSyncOffText = "Failed to write event.";

// Syncs an alarm, because one that a power cut takes away tells nobody. A failure changes no
// answer: the alarm is in place.
void sync_file(int fd) {
  const ErrnoKeeper keep;
  fsync(fd);
}

}  // namespace

void give_up_events() noexcept {
  const RootScope root;  // the agent's folder is closed to clients
  if (const int error = write_sync_off(); error != 0) {
    TAVRIX_LOG_ERROR("events are lost, and %s, which would tell the agent, cannot be made: %s",
                     TAVRIX_SYNC_OFF_PATH, strerror(error));
  }
  TAVRIX_REQUIRE(false, "0");
  __builtin_unreachable();
}

}  // namespace tavrix

int write_sync_off(void) {
  const tavrix::Fd file(
      open(TAVRIX_SYNC_OFF_PATH, O_RDWR | O_CREAT | O_CLOEXEC, tavrix::kSyncOffMode));
  if (!file) {
    const int error = errno;
    TAVRIX_LOG(0, "Creation of %s failed with %d(%s)", TAVRIX_SYNC_OFF_PATH, error,
               strerror(error));
    return error;
  }
  TAVRIX_LOG(0, "%s file created.", TAVRIX_SYNC_OFF_PATH);
  // The agent looks only for the file; the text is for people.
  static_cast<void>(write(file.get(), tavrix::kSyncOffText.data(), tavrix::kSyncOffText.size()) <
                    0);
  tavrix::sync_file(file.get());
  tavrix::sync_folder(TAVRIX_CONF_FOLDER);
  return 0;
}

int mark_event_db_as_rescan_needed(const char* reason) {
  tavrix::Fd file(open(TAVRIX_RESCAN_PATH, O_WRONLY | O_CREAT | O_CLOEXEC, tavrix::kRescanMode));
  if (!file) {
    TAVRIX_LOG(0, "Cannot open event status file '%s' to mark rescan needed (-1). errno = %d(%s)",
               TAVRIX_RESCAN_PATH, errno, strerror(errno));
    return -1;
  }
  const char* text = reason == nullptr ? "" : reason;
  const std::size_t size = std::strlen(text) + 1;  // the agent reads up to the NUL
  if (write(file.get(), text, size) != static_cast<ssize_t>(size)) {
    TAVRIX_LOG(0, "Cannot write event status file '%s' to mark rescan needed (-1). errno = %d(%s)",
               TAVRIX_RESCAN_PATH, errno, strerror(errno));
    // The file stays open: on some disks a close would drop the error that the next caller must
    // see.
    static_cast<void>(file.release());
    return -1;
  }
  tavrix::sync_file(file.get());
  if (close(file.release()) != 0) {
    TAVRIX_LOG(0, "Close of event status file '%s' failed. errno = %d(%s)", TAVRIX_RESCAN_PATH,
               errno, strerror(errno));
    return -1;
  }
  tavrix::sync_folder(TAVRIX_CONF_FOLDER);
  return 0;
}
