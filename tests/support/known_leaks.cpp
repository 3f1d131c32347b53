// SPDX-License-Identifier: LGPL-3.0-or-later
// Leaks that the library keeps on purpose, told to the leak sanitizer: the holder of a pattern that
// is compiled for one match, and the stream of the pattern file. Callers of long standing count on
// both.

extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:match_regex_string\nleak:read_and_compile_patterns\n";
}
