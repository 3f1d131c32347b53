// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/staging_owner.hpp"

#include <fmt/format.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/sweeper/firm_hold.hpp"
#include "tools/sweeper/running_mark.hpp"
#include "utils/staging/dump_in_flight.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix::sweeper {
namespace {

key_t segment_key() { return ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_BUFFER_KEY_ID); }

int32_t& size_setting() { return global_params[PARAM_STAGING_BUFFER_SIZE].value.intval; }

// The segment as it is. Its size may differ from the settings.
struct Segment {
  enum class State { kMissing, kUnknown, kUnused, kDamaged, kSound };
  State state = State::kMissing;
  int id = -1;
  std::size_t bytes = 0;
};

Segment::State state_of_header(const staging_buffer_s& header, std::size_t bytes) {
  // Writers change count and offset in one store, so one load gets both of the same moment.
  const uint64_t head =
      __atomic_load_n(reinterpret_cast<const uint64_t*>(&header), __ATOMIC_ACQUIRE);
  if (head == 0) return Segment::State::kUnused;
  const uint64_t next_offset = head >> 32;
  return next_offset >= kEmptyStagingBuffer && next_offset <= bytes ? Segment::State::kSound
                                                                    : Segment::State::kDamaged;
}

Segment look() {
  Segment segment;
  segment.id = shmget(segment_key(), 0, 0);
  if (segment.id == -1) {
    segment.state = errno == ENOENT ? Segment::State::kMissing : Segment::State::kUnknown;
    return segment;
  }
  struct shmid_ds info {};
  const ShmAttachment attached(shmat(segment.id, nullptr, SHM_RDONLY));
  if (!attached || shmctl(segment.id, IPC_STAT, &info) != 0) {
    segment.state = Segment::State::kUnknown;
    return segment;
  }
  segment.bytes = info.shm_segsz;
  segment.state =
      state_of_header(*static_cast<const staging_buffer_s*>(attached.get()), segment.bytes);
  return segment;
}

bool fail(std::string& problem, const char* what) {
  problem = fmt::format("{}: {}", what, std::strerror(errno));
  return false;
}

bool make_segment(std::size_t bytes, std::string& problem) {
  size_setting() = static_cast<int32_t>(bytes);
  return create_staging_buffer() == 0 || fail(problem, "cannot make the segment");
}

// Empties a damaged segment; its records are lost. The agent is asked for a rescan first, because
// this process may be killed at any moment.
bool begin_anew(std::size_t bytes, std::string& problem) {
  ask_for_rescan("the staging buffer was damaged");
  size_setting() = static_cast<int32_t>(bytes);
  return initialize_staging_buffer() == 0 || fail(problem, "cannot initialise the segment");
}

// True if the kernel has memory for that size. Asked before the old segment is removed.
bool could_make(std::size_t bytes) {
  const int id = shmget(IPC_PRIVATE, bytes, 0600);
  if (id == -1) return false;
  const ErrnoKeeper keep;
  shmctl(id, IPC_RMID, nullptr);
  return true;
}

bool write_out(std::span<const std::byte> records, TempDump& dump, FlushMark& mark) {
  const char* folder = global_params[PARAM_STAGING_DIR].value.strval;
  if (!dump.create(folder)) return false;
  if (mark.set(folder, dump.name(), records) == FlushMark::Before::kUnsettled) return false;
  return write_all(dump.fd(), records.data(), records.size()) ==
             static_cast<ssize_t>(records.size()) &&
         fdatasync(dump.fd()) == 0;
}

// Replaces the segment by a larger one. The records go into a temporary file first, as in a flush:
// if this process is killed before the old segment is gone, the file's records are still in the
// buffer; after that, the file alone has them. It becomes a dump file when stranded files are
// settled.
bool replace(const Segment& old, std::size_t bytes, std::string& problem) {
  if (!could_make(bytes)) return fail(problem, "there is no memory for the larger segment");
  TempDump dump;
  FlushMark mark;
  {
    const ShmAttachment attached(shmat(old.id, nullptr, 0));
    if (!attached) return fail(problem, "cannot attach the segment");
    const auto* buffer = static_cast<const staging_buffer_s*>(attached.get());
    if (buffer->num_records > 0) {
      const std::span records(reinterpret_cast<const std::byte*>(buffer + 1),
                              buffer->next_offset - kEmptyStagingBuffer);
      if (!write_out(records, dump, mark)) {
        fail(problem, "cannot write the records of the old segment");
        dump.discard();
        return false;
      }
    }
  }
  if (shmctl(old.id, IPC_RMID, nullptr) != 0) {
    dump.discard();
    return fail(problem, "cannot remove the old segment");
  }
  dump.keep();
  if (make_segment(bytes, problem)) return true;
  return make_segment(old.bytes, problem) && false;
}

// Makes, finishes or grows the segment. Called while a FirmHold has the semaphore.
bool mend(std::size_t wanted, std::string& problem) {
  const Segment segment = look();
  switch (segment.state) {
    case Segment::State::kMissing:
      return make_segment(wanted, problem);
    case Segment::State::kUnknown:
      return fail(problem, "cannot look at the segment");
    case Segment::State::kUnused:
      size_setting() = static_cast<int32_t>(segment.bytes);
      if (initialize_staging_buffer() != 0) return fail(problem, "cannot initialise the segment");
      break;
    case Segment::State::kDamaged:
      if (!begin_anew(segment.bytes, problem)) return false;
      break;
    case Segment::State::kSound:
      break;
  }
  return segment.bytes >= wanted || replace(segment, wanted, problem);
}

bool is_well(const Segment& segment, std::size_t wanted) {
  return segment.state == Segment::State::kSound && segment.bytes >= wanted &&
         has_sound_semaphore();
}

}  // namespace

bool own_staging_buffer(int32_t bytes, std::string& problem) {
  const std::size_t wanted =
      std::max<std::size_t>(static_cast<std::size_t>(std::max(bytes, 0)), kEmptyStagingBuffer);
  bool is_done = true;
  if (!is_well(look(), wanted)) {
    const OwnersTurn turn;
    FirmHold hold;
    is_done = hold.take() ? mend(wanted, problem) : fail(problem, "cannot take the semaphore");
  }
  // This process flushes all that others append, so it works with the segment's real size.
  if (const std::size_t size = segment_bytes(); size > 0) {
    size_setting() = static_cast<int32_t>(size);
  }
  return is_done;
}

bool is_segment_missing() { return look().state == Segment::State::kMissing; }

std::size_t segment_bytes() { return look().bytes; }

Fill buffer_fill() {
  const Segment segment = look();
  if (segment.state != Segment::State::kSound) return {};
  const ShmAttachment attached(shmat(segment.id, nullptr, SHM_RDONLY));
  if (!attached) return {};
  const auto* buffer = static_cast<const staging_buffer_s*>(attached.get());
  const uint64_t head =
      __atomic_load_n(reinterpret_cast<const uint64_t*>(buffer), __ATOMIC_ACQUIRE);
  return {static_cast<uint32_t>(head), (head >> 32) - kEmptyStagingBuffer, segment.bytes};
}

}  // namespace tavrix::sweeper
