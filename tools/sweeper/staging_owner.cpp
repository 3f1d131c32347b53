#include "tools/sweeper/staging_owner.hpp"

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>
#include <string>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/service/journal.hpp"
#include "utils/staging.hpp"

namespace tavrix::sweeper {
namespace {

key_t semaphore_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID); }
key_t segment_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_BUFFER_KEY_ID); }

int32_t& size_setting() { return global_params[PARAM_STAGING_BUFFER_SIZE].value.intval; }

bool fail(const char* what) {
  const std::string reason = std::strerror(errno);
  service::say(service::Tone::kError, std::string("tavrix-sweeper: ") + what + ": " + reason);
  return false;
}

bool own_semaphore() {
  if (semget(semaphore_key(), 1, 0) != -1) return true;
  return create_eventstore_staging_semaphore() == 1 || fail("cannot make the semaphore");
}

// The segment's size, or 0.
std::size_t segment_size(int shmid) {
  struct shmid_ds info {};
  return shmctl(shmid, IPC_STAT, &info) == 0 ? info.shm_segsz : 0;
}

// A segment that was made and never initialised is empty; any other header outside its bounds is
// damage, and what it held is lost.
bool mend_header(std::size_t size) {
  bool is_unused = false;
  {
    StagingHold hold;
    int cause = 0;
    while (!hold.acquire(cause)) {
      if (cause != EINTR) return fail("cannot take the semaphore");
    }
    const StagingAttachment buffer(get_eventstore_staging_buffer());
    if (!buffer) return fail("cannot attach the segment");
    if (buffer->next_offset >= kEmptyStagingBuffer && buffer->next_offset <= size) return true;
    is_unused = buffer->next_offset == 0 && buffer->num_records == 0;
    if (initialize_staging_buffer() != 0) return fail("cannot initialise the segment");
  }
  if (is_unused) return true;
  service::say(service::Tone::kError,
               "tavrix-sweeper: the staging buffer was damaged; a rescan is asked for");
  mark_event_db_as_rescan_needed("the staging buffer was damaged");
  return true;
}

// Takes the old segment away at a moment when it is empty; writers look the segment up under the
// semaphore, so the next one finds the new segment.
bool replace_segment(int old_id, int32_t old_size, int32_t new_size) {
  for (;;) {
    size_setting() = old_size;
    if (flush_staging_buffer(FB_CTX_DISCON) != 1) {
      size_setting() = new_size;
      return fail("cannot flush the old segment");
    }
    StagingHold hold;
    int cause = 0;
    if (!hold.acquire(cause)) continue;
    bool is_empty = false;
    {
      const StagingAttachment buffer(get_eventstore_staging_buffer());
      is_empty = !buffer || buffer->num_records == 0;
    }
    if (!is_empty) continue;  // a writer was quicker
    size_setting() = new_size;
    if (shmctl(old_id, IPC_RMID, nullptr) != 0) return fail("cannot remove the old segment");
    return create_staging_buffer() == 0 || fail("cannot make the segment");
  }
}

}  // namespace

bool own_staging_buffer() {
  if (!own_semaphore()) return false;
  const int shmid = shmget(segment_key(), 0, 0);
  if (shmid == -1) {
    return create_staging_buffer() == 0 || fail("cannot make the segment");
  }
  const auto old_size = static_cast<int32_t>(segment_size(shmid));
  const int32_t new_size = size_setting();
  size_setting() = old_size;
  const bool is_sound = mend_header(static_cast<std::size_t>(old_size));
  size_setting() = new_size;
  if (!is_sound) return false;
  return old_size == new_size || replace_segment(shmid, old_size, new_size);
}

uint32_t staged_records() {
  const StagingAttachment buffer(get_eventstore_staging_buffer());
  return buffer ? buffer->num_records : 0;
}

}  // namespace tavrix::sweeper
