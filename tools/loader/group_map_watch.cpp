// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/group_map_watch.hpp"

#include <fmt/format.h>

#include "tavrix_vfs_utils.h"
#include "tools/files/durable.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::loader {

mapload::Report GroupMapWatch::look() {
  struct stat info {};
  if (stat(TAVRIX_GROUPMAP_MARKER_PATH, &info) != 0) return {};
  const bool is_same = info.st_size == size_ && info.st_ctim.tv_sec == changed_.tv_sec &&
                       info.st_ctim.tv_nsec == changed_.tv_nsec;
  if (is_same) return {};
  const auto bytes = files::read_whole(TAVRIX_GROUPMAP_MARKER_PATH);
  if (!bytes) return {};  // the next look tries again
  size_ = info.st_size;
  changed_ = info.st_ctim;
  mapcheck::Findings findings = groupmap::verify(*bytes);
  const uint64_t warnings = findings.warnings();
  groupmap::check_checksum(TAVRIX_GROUPMAP_MARKER_PATH, *bytes, findings);
  const bool is_unchecked = findings.warnings() != warnings;
  mapload::Report report;
  if (findings.errors() > 0) {
    report.push_back(
        {mapload::Weight::kError,
         fmt::format("{} has {}; \"tavrixctl groupmap verify\" lists them",
                     TAVRIX_GROUPMAP_MARKER_PATH, text::counted(findings.errors(), "error"))});
  } else if (is_unchecked && !missing_was_told_) {
    missing_was_told_ = true;
    report.push_back(
        {mapload::Weight::kWarning, fmt::format("{} has no checksum beside it; it is used as it is",
                                                TAVRIX_GROUPMAP_MARKER_PATH)});
  }
  return report;
}

}  // namespace tavrix::loader
