// SPDX-License-Identifier: LGPL-3.0-or-later
// Checks a size file and a data file without importing them.
//
// The import itself trusts both: a document that breaks the grammar aborts it, and one with wrong
// counts overruns the image. Both files are read in pieces. The memory that is used grows with the
// depth of the tree and the width of its open folders, not with the size of the file.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "tools/mapcheck/findings.hpp"
#include "tools/mapcheck/progress.hpp"

namespace tavrix::mapcheck {

// The numbers of a size file.
struct SizeFile {
  std::string map_name, version;
  uint64_t generation = 0;
  uint64_t timestamp = 0;
  uint64_t folders = 0;
  uint64_t aces = 0;
  uint64_t name_bytes = 0;
};

// The counts of what a data file really holds.
struct DataFile {
  uint64_t folders = 0;
  uint64_t aces = 0;
  uint64_t name_bytes = 0;  // with a NUL for each name
  uint64_t list_bytes = 0;  // child lists, with the one around the root
  uint64_t deepest = 0;     // folders between the root and the deepest one
  uint64_t widest = 0;      // children of the widest folder
};

struct LintResult {
  SizeFile size;
  DataFile data;
  uint64_t image_bytes = 0;  // computed from the size file
  Findings findings;
};

// A source of bytes, so that tests and fuzzers can lint memory. read() returns the number of bytes
// that it put into the buffer, 0 at the end.
class Source {
 public:
  virtual ~Source() = default;
  virtual std::size_t read(char* buffer, std::size_t room) = 0;
};

LintResult lint(Source& size_file, Source& data_file);

// Does the same with paths. Returns nothing, and a message in `error`, when a file cannot be read.
// The progress is told in bytes of the data file.
std::optional<LintResult> lint_files(const std::string& size_path, const std::string& data_path,
                                     std::string& error, const Progress& progress = {});

}  // namespace tavrix::mapcheck
