// SPDX-License-Identifier: LGPL-3.0-or-later
// The patterns of file names that may always be deleted.

#include <sys/stat.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "internal/scoped.hpp"
#include "logging.h"
#include "parameter_block.h"
#include "tavrix_vfs_utils.h"

pattern_buf_s g_tavrix_pattern_buf;

namespace tavrix {
namespace {

constexpr std::size_t kFirstLineBuffer = 1024;

void forget(regex_list_elem& elem) {
  std::free(elem.pattern);
  elem.pattern = nullptr;
  if (elem.compiled_pattern != nullptr) regfree(elem.compiled_pattern);
}

// Stores and compiles a line. false when the line is no pattern; the element is free again then.
bool store(regex_list_elem& elem, const char* line, std::size_t length) {
  forget(elem);
  // Drops the last character: the newline, or the last letter of a last line without one.
  elem.pattern = strndup(line, length - 1);
  if (elem.pattern == nullptr) return false;
  if (get_regex_matchbuf(elem.pattern, &elem.compiled_pattern) == 1) {
    TAVRIX_LOG(2, "read pattern %s\n", elem.pattern);
    return true;
  }
  std::free(elem.pattern);
  elem.pattern = nullptr;
  return false;
}

std::FILE* open_pattern_file() {
  const char* path =
      global_params == nullptr ? "" : global_params[PARAM_REGEX_FILE_NAME].value.strval;
  if (*path == '\0') {
    TAVRIX_LOG(0, "no regex file specified\n");
    return nullptr;
  }
  struct stat status {};
  if (stat(path, &status) == -1) {
    TAVRIX_LOG(0, "regular expression file does not exist\n");
    return nullptr;
  }
  std::FILE* file = std::fopen(path, "r");
  if (file == nullptr) TAVRIX_LOG(0, "cannot open regular expression file\n");
  return file;
}

}  // namespace
}  // namespace tavrix

int read_and_compile_patterns(void) {
  // The stream stays open on purpose: a process reads the file once.
  std::FILE* file = tavrix::open_pattern_file();
  if (file == nullptr) return -1;

  pattern_buf_s& patterns = g_tavrix_pattern_buf;
  patterns.num_elems = 0;
  std::size_t capacity = tavrix::kFirstLineBuffer;
  auto* line = static_cast<char*>(std::malloc(capacity));
  if (line == nullptr) capacity = 0;
  ssize_t length = 0;
  while ((length = getline(&line, &capacity, file)) > 0) {
    if (patterns.num_elems >= TAVRIX_MAX_PATTERNS) {
      patterns.num_elems += 1;  // counted but not kept: the limit of a file
      continue;
    }
    regex_list_elem& elem = patterns.elems[patterns.num_elems];
    if (tavrix::store(elem, line, static_cast<std::size_t>(length))) patterns.num_elems += 1;
  }
  std::free(line);
  return 0;
}

int is_deletable_file(const char* fname) {
  TAVRIX_LOG(10, "Checking for deletable file\n");
  const pattern_buf_s& patterns = g_tavrix_pattern_buf;
  for (int i = 0; i < patterns.num_elems && i < TAVRIX_MAX_PATTERNS; ++i) {
    if (match_string_with_regex_buf(fname, patterns.elems[i].compiled_pattern) == REGEX_TRUE) {
      TAVRIX_LOG(10, "Found deletable file %s\n", fname);
      return 1;
    }
  }
  return 0;
}
