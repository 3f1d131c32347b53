// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/stranded_files.hpp"

#include <dirent.h>
#include <fmt/format.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <span>
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

std::vector<std::string> leftovers(const std::string& folder) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, CloseFolder> entries(opendir(folder.c_str()));
  if (entries == nullptr) return names;
  while (const dirent* entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (name.starts_with(kTempDumpPrefix)) names.push_back(name);
    // A check of the space that was killed leaves such a file; it holds nothing.
    if (name.starts_with(kProbePrefix)) unlink(fmt::format("{}/{}", folder, name).c_str());
  }
  return names;
}

Stranded set_aside(const std::string& folder, const std::string& name) {
  const std::string from = fmt::format("{}/{}", folder, name);
  const std::string to = fmt::format("{}/{}{}", folder, kAsidePrefix, name);
  if (rename(from.c_str(), to.c_str()) == 0) {
    sync_folder(folder.c_str());
    return {Settled::kForeign, Tone::kError,
            fmt::format("{} was not written by a flush: set aside as {}", from, to)};
  }
  return {Settled::kFailed, Tone::kError,
          fmt::format("{} was not written by a flush, and cannot be set aside: {}", from,
                      std::strerror(errno))};
}

Stranded told(const std::string& folder, const std::string& name, Settled result) {
  switch (result) {
    case Settled::kGone:
    case Settled::kLive:
      return {result, Tone::kInfo, ""};
    case Settled::kRemoved:
      return {result, Tone::kInfo,
              fmt::format("removed {}: its flush was killed before it emptied the buffer", name)};
    case Settled::kPublished:
      return {result, Tone::kInfo, fmt::format("published {}: its flush was killed", name)};
    case Settled::kForeign:
      return set_aside(folder, name);
    case Settled::kFailed:
      return {result, Tone::kError,
              fmt::format("cannot settle {}/{}: {}", folder, name, std::strerror(errno))};
  }
  return {};
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

namespace {

// Settles the files of a folder; `with_records` calls its argument with the records in the buffer.
template <typename WithRecords>
std::vector<Stranded> settle_in(const std::string& folder, WithRecords with_records) {
  std::vector<Stranded> all;
  const auto names = leftovers(folder);
  if (has_flush_mark(folder.c_str())) {
    Settled result = Settled::kGone;
    // A flusher that lives clears its mark before it gives the semaphore back, so this mark is of
    // one that was killed.
    with_records([&](auto records) { result = settle_marked_dump(folder.c_str(), records); });
    if (result != Settled::kForeign) {
      all.push_back(told(folder, "the file of the last flush", result));
    }
  }
  for (const std::string& name : names) {
    Settled result = Settled::kGone;
    with_records(
        [&](auto records) { result = settle_dump(folder.c_str(), name.c_str(), records); });
    all.push_back(told(folder, name, result));
  }
  return all;
}

}  // namespace

void settle_stranded_files() {
  static Trouble trouble(Tone::kError);
  std::string unsettled;
  for (const Stranded& file :
       settle_in(staging_folder(), [](auto settle) { with_buffer(settle); })) {
    if (file.result == Settled::kFailed) {
      unsettled = file.sentence;
    } else if (!file.sentence.empty()) {
      say(file.tone, file.sentence);
    }
  }
  trouble.set(unsettled);
}

std::vector<Stranded> settle_files_of_gone_node(const std::string& folder) {
  auto all = settle_in(folder, [](auto settle) { settle(std::span<const std::byte>()); });
  for (Stranded& file : all) {
    if (file.result != Settled::kLive) continue;
    file.tone = Tone::kError;
    file.sentence = fmt::format("a file in {} is locked: its flusher lives", folder);
  }
  return all;
}

}  // namespace tavrix::sweeper
