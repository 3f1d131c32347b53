// SPDX-License-Identifier: LGPL-3.0-or-later
// Loads a map into a new table and makes it current, from two files of the synchronisation agent or
// from the local copy.
//
// The import runs in a child: a document that breaks the grammar aborts it, and its table must not
// stay behind. A map is published only after a check found its finished image sound. The two files
// and the previous local copy are kept until the new map is published.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "internal/scoped.hpp"
#include "tools/mapcheck/findings.hpp"
#include "tools/mapload/local_copy.hpp"
#include "tools/mapload/report.hpp"

namespace tavrix::mapload {

// Progress in folders, of those in all.
enum class Phase { kImporting, kVerifying };
using Progress = std::function<void(Phase phase, uint64_t done, uint64_t folders)>;

// The two files after their map became current.
enum class Files { kRemoved, kKept };

enum class Result {
  kPublished,
  kRefused,   // the pair, or the copy, cannot become current
  kTryAgain,  // a call failed in a way that passes by itself
  kStopped,
  kHeld  // the guard held it back; the previous map stays
};

// The answer of a guard: kPublished lets the map pass, and any other result ends the load with the
// text.
struct Guarded {
  Result result = Result::kPublished;
  std::string text;
};

struct Request {
  const char* size_path = nullptr;
  const char* data_path = nullptr;
  bool verbose = false;               // lets the library's own output through
  Progress progress;                  // called every 50 ms or more often; may be empty
  std::function<bool()> should_stop;  // asked every 50 ms; may be empty
  Files files = Files::kRemoved;
  // Asked about the finished image before it is published; may be empty.
  std::function<Guarded(std::span<const std::byte> image)> guard;
  // Called when an import lacks disk space, until it has enough or the call returns false. May be
  // empty.
  std::function<bool()> make_room;
};

struct Loaded {
  Result result = Result::kRefused;
  std::string error;            // empty: the map is current
  mapcheck::Findings findings;  // of a broken image
  Report report;                // problems that did not decide the result
  int table = -1;
  uint32_t folders = 0, entries = 0, bytes = 0;
  [[nodiscard]] bool ok() const { return result == Result::kPublished; }
  // One line.
  [[nodiscard]] std::string text() const;
};

// Takes the lock under which maps are changed, so that loaders and operators take turns. Returns
// none and sets errno when it cannot be taken. `try_lock_maps` does not wait: it fails with
// EWOULDBLOCK.
[[nodiscard]] Fd lock_maps();
[[nodiscard]] Fd try_lock_maps();

// Call the following under the lock, after a recovery (recovery.hpp). Whatever ends them, either
// the previous or the new map is current.

// Imports a pair. Removes the two files when the map is current, unless the request keeps them, and
// leaves them alone otherwise.
Loaded load(const Request& request);
// Makes the local copy current, unless `copy`, a look at it, found damage.
Loaded load_copy(const Request& request, const Copy& copy);
// Makes an image of the disk current, which has this digest, and with it the local copy. The file
// stays; it is on the file system of the local copy.
Loaded load_image(const Request& request, const std::string& path, const files::Digest& digest);

// Write the last line of an import to the operator's log.
void log_published();
void log_refused();

}  // namespace tavrix::mapload
