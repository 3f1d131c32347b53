// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/sweeper/running_mark.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <fstream>

#include "eventstore.h"
#include "internal/scoped.hpp"
#include "tools/files/boot.hpp"
#include "tools/service/service.hpp"
#include "tools/sweeper/paths.hpp"
#include "tools/sweeper/staging_owner.hpp"
#include "tools/sweeper/trouble.hpp"
#include "utils/staging/sync_folder.hpp"

namespace tavrix::sweeper {
namespace {

using service::say;
using service::Tone;

std::string first_line(const char* path) {
  std::string line;
  std::ifstream in(path);
  std::getline(in, line);
  return line;
}

bool is_there() { return access(kRunningMark, F_OK) == 0; }

// The lasting troubles that the mark, or the rescan alarm, cannot be written.
Trouble& trouble_of_mark() {
  static Trouble trouble(Tone::kError);
  return trouble;
}
Trouble& trouble_of_rescan() {
  static Trouble trouble(Tone::kError);
  return trouble;
}

// The reason of a rescan request that could not be written yet; empty when there is none.
std::string& unwritten_reason() {
  static std::string reason;
  return reason;
}

}  // namespace

void look_for_lost_buffer() {
  if (!is_there() || !is_segment_missing()) return;
  ask_for_rescan(first_line(kRunningMark) == files::this_boot()
                     ? "the staging buffer was taken away while it was in use"
                     : "the machine stopped while events were in memory");
}

void set_running_mark() {
  if (is_there() && first_line(kRunningMark) == files::this_boot()) {
    // The time of the mark is that of the last period's work.
    utimensat(AT_FDCWD, kRunningMark, nullptr, 0);
    return;
  }
  const Fd file(open(kRunningMark, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  const std::string text = files::this_boot() + "\n";
  if (!file || write_all(file.get(), text.data(), text.size()) < 0 || fsync(file.get()) != 0) {
    return trouble_of_mark().set(
        fmt::format("{}: {}; if the machine stops now, nobody notices that events were lost",
                    kRunningMark, std::strerror(errno)));
  }
  trouble_of_mark().set("");
  sync_folder(kConfFolder);
}

void clear_running_mark() {
  if (unlink(kRunningMark) == 0) sync_folder(kConfFolder);
}

void ask_for_rescan(const std::string& reason) {
  if (mark_event_db_as_rescan_needed(reason.c_str()) == 0) {
    say(Tone::kError, reason + "; the agent is asked for a rescan");
    unwritten_reason().clear();
    return trouble_of_rescan().set("");
  }
  trouble_of_rescan().set(fmt::format("{}, and {} cannot be written: {}; trying again", reason,
                                      TAVRIX_RESCAN_PATH, std::strerror(errno)));
  unwritten_reason() = reason;
}

void repeat_rescan_request() {
  if (const std::string reason = unwritten_reason(); !reason.empty()) ask_for_rescan(reason);
}

}  // namespace tavrix::sweeper
