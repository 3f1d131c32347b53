// Loading a map: from two files of the synchronisation agent, or from the local copy, to the
// current table.
//
// The import runs in a child: a document that breaks the grammar aborts it, and a table must not
// stay behind. Nothing is published that a check of the finished image has not found sound.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "internal/scoped.hpp"
#include "tools/mapcheck/findings.hpp"

namespace tavrix::mapload {

// What a child that imports says, while it does: folders done, and in all.
using Progress = std::function<void(uint64_t done, uint32_t folders)>;

struct Request {
  const char* size_path = nullptr;  // both null: from the local copy
  const char* data_path = nullptr;
  bool verbose = false;  // lets the library's own output through
  Progress progress;     // called every 50 ms; may be empty
};

struct Loaded {
  std::string error;            // empty: the map is current
  mapcheck::Findings findings;  // of a broken image
  int table = -1;
  uint32_t folders = 0, entries = 0, bytes = 0;
  [[nodiscard]] bool ok() const { return error.empty(); }
};

// Held while maps are changed: loaders and operators take turns. An import whose parent died holds
// it to its end.
[[nodiscard]] Fd lock_maps();

// Under the lock. The map of before stays current unless the new one is. The import removes the two
// files.
Loaded load(const Request& request);

// The local copy as it was before an import that was cut off.
extern const char* const kCopyBefore;

// Removes a table that is not current: left by a loader that died. Only while nobody loads.
bool remove_stale_table();
// Whether there is a current table at all.
bool has_current_table();

}  // namespace tavrix::mapload
