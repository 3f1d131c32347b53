// SPDX-License-Identifier: LGPL-3.0-or-later
// Loading a map: from two files of the synchronisation agent, or from the local copy, to the
// current table.
//
// The import runs in a child: a document that breaks the grammar aborts it, and a table must not
// stay behind. Nothing is published that a check of the finished image has not found sound. The two
// files and the local copy of before are kept until the new map is the published one.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "internal/scoped.hpp"
#include "tools/mapcheck/findings.hpp"
#include "tools/mapload/local_copy.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::mapload {

// Progress of the import child: folders done, folders in all.
using Progress = std::function<void(uint64_t done, uint32_t folders)>;

struct Request {
  const char* size_path = nullptr;
  const char* data_path = nullptr;
  bool verbose = false;               // lets the library's own output through
  Progress progress;                  // called every 50 ms; may be empty
  std::function<bool()> should_stop;  // asked every 50 ms; may be empty
};

enum class Result {
  kPublished,
  kRefused,   // the pair, or the copy, will not do
  kTryAgain,  // a call failed in a way that passes by itself
  kStopped
};

struct Loaded {
  Result result = Result::kRefused;
  std::string error;            // empty: the map is current
  mapcheck::Findings findings;  // of a broken image
  Report report;                // troubles beside
  int table = -1;
  uint32_t folders = 0, entries = 0, bytes = 0;
  [[nodiscard]] bool ok() const { return result == Result::kPublished; }
  // One line.
  [[nodiscard]] std::string text() const;
};

// Held while maps are changed: loaders and operators take turns. None, and errno, when it cannot be
// taken; `try_lock_maps` does not wait, and fails with EWOULDBLOCK.
[[nodiscard]] Fd lock_maps();
[[nodiscard]] Fd try_lock_maps();

// The following are called under the lock, after a recovery (recovery.hpp). Whatever ends them, the
// map of before stays current unless the new one is.

// Imports a pair; removes the two files when the map is current, and leaves them alone otherwise.
Loaded load(const Request& request);
// Makes the local copy current, unless this look at it has found damage.
Loaded load_copy(const Request& request, const Copy& copy);

// The last line of an import in the operator's log.
void log_published();
void log_refused();

}  // namespace tavrix::mapload
