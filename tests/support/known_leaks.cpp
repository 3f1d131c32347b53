// SPDX-License-Identifier: LGPL-3.0-or-later
// Tells the leak sanitizer what the library leaves behind on purpose: the block of a pattern that
// was compiled for one match, and the stream of the pattern file. Callers rely on both.

extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() {
  return "leak:match_regex_string\nleak:read_and_compile_patterns\n";
}
