// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/stranded_files.hpp"

#include <dirent.h>
#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "eventstore.h"
#include "tools/service/service.hpp"
#include "tools/sweeper/space.hpp"
#include "tools/sweeper/trouble.hpp"
#include "utils/parameters.hpp"
#include "utils/staging/dump_in_flight.hpp"
#include "utils/staging/staging.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix::sweeper {
namespace {

using service::say;
using service::Tone;

constexpr const char* kAsidePrefix = "aside_";

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

const char* staging_folder() { return global_params[PARAM_STAGING_DIR].value.strval; }

std::vector<std::string> leftovers() {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, CloseFolder> folder(opendir(staging_folder()));
  if (folder == nullptr) return names;
  while (const dirent* entry = readdir(folder.get())) {
    const std::string name = entry->d_name;
    if (name.starts_with(kTempDumpPrefix)) names.push_back(name);
    // A check of the space that was killed leaves such a file; it holds nothing.
    if (name.starts_with(kProbePrefix)) unlink((staging_folder() + ("/" + name)).c_str());
  }
  return names;
}

void set_aside(const std::string& name, std::string& unsettled) {
  const std::string from = fmt::format("{}/{}", staging_folder(), name);
  const std::string to = fmt::format("{}/{}{}", staging_folder(), kAsidePrefix, name);
  if (rename(from.c_str(), to.c_str()) == 0) {
    sync_folder(staging_folder());
    say(Tone::kError, fmt::format("{} was not written by a flush: set aside as {}", from, to));
  } else {
    unsettled = fmt::format("{} was not written by a flush, and cannot be set aside: {}", from,
                            std::strerror(errno));
  }
}

void report(const std::string& name, Settled result, std::string& unsettled) {
  switch (result) {
    case Settled::kGone:
    case Settled::kLive:
      return;
    case Settled::kRemoved:
      return say(
          Tone::kInfo,
          fmt::format("removed {}: its flush was killed before it emptied the buffer", name));
    case Settled::kPublished:
      return say(Tone::kInfo, fmt::format("published {}: its flush was killed", name));
    case Settled::kForeign:
      return set_aside(name, unsettled);
    case Settled::kFailed:
      unsettled =
          fmt::format("cannot settle {}/{}: {}", staging_folder(), name, std::strerror(errno));
      return;
  }
}

// Calls `settle` with the records in the buffer, while the semaphore is held. Returns false when
// the semaphore or the buffer cannot be had.
template <typename Settle>
bool with_buffer(Settle settle) {
  StagingHold hold;
  for (int cause = 0; !hold.acquire(cause);) {
    if (cause != EINTR) return false;
  }
  const StagingAttachment buffer(get_eventstore_staging_buffer());
  if (!buffer || buffer->next_offset < kEmptyStagingBuffer ||
      buffer->next_offset > static_cast<uint32_t>(parameter(PARAM_STAGING_BUFFER_SIZE))) {
    return false;
  }
  settle(std::span(reinterpret_cast<const std::byte*>(&*buffer + 1),
                   buffer->next_offset - kEmptyStagingBuffer));
  return true;
}

}  // namespace

void settle_stranded_files() {
  static Trouble trouble(Tone::kError);
  std::string unsettled;
  const auto names = leftovers();
  const char* folder = staging_folder();
  if (has_flush_mark(folder)) {
    Settled result = Settled::kGone;
    // A flusher that lives clears its mark before it gives the semaphore back, so this mark is of
    // one that was killed.
    with_buffer([&](auto buffered) { result = settle_marked_dump(folder, buffered); });
    if (result != Settled::kForeign) report("the file of the last flush", result, unsettled);
  }
  for (const std::string& name : names) {
    Settled result = Settled::kGone;
    with_buffer([&](auto buffered) { result = settle_dump(folder, name.c_str(), buffered); });
    report(name, result, unsettled);
  }
  trouble.set(unsettled);
}

}  // namespace tavrix::sweeper
