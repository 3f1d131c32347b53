// SPDX-License-Identifier: LGPL-3.0-or-later
// What the library leaves behind on purpose, for the leak sanitizer: the holder of a pattern that
// was compiled for one match, and the stream of the pattern file. Callers of long standing count on
// both.

extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:match_regex_string\nleak:read_and_compile_patterns\n";
}
