// SPDX-License-Identifier: LGPL-3.0-or-later
/* How far a pattern of file names reaches. For C and C++; the tools and the Samba module ask it
 * before they trust a file of patterns. */
#ifndef TAVRIX_PATTERN_REACH_H
#define TAVRIX_PATTERN_REACH_H

#include <regex.h>
#include <stdbool.h>
#include <stddef.h>
#include <string.h>

/* Three names of one shape that have no character in common. A pattern that matches all three
 * tells no name of that shape from another. */
static inline bool tavrix_matches_all_three(const regex_t* pattern, const char* const names[3]) {
  for (int i = 0; i < 3; ++i) {
    if (regexec(pattern, names[i], 0, NULL, 0) != 0) return false;
  }
  return true;
}

/* True if a pattern matches names of every kind: an empty one, ".*", "." and the like, also when
 * it wants a length or a file type without saying which. */
static inline bool tavrix_matches_every_name(const regex_t* pattern) {
  enum { kLongestName = 255 };
  static const char* const kTyped[][3] = {{"q.q", "7.7", "_._"}, {"q.qxz", "7.xzq", "_.zxq"}};
  char letters[kLongestName + 1];
  char digits[kLongestName + 1];
  char signs[kLongestName + 1];
  const char* const plain[3] = {letters, digits, signs};
  for (size_t length = 1; length <= kLongestName; length = length * 2 + 1) {
    memset(letters, 'q', length);
    memset(digits, '7', length);
    memset(signs, '_', length);
    letters[length] = digits[length] = signs[length] = '\0';
    if (tavrix_matches_all_three(pattern, plain)) return true;
  }
  return tavrix_matches_all_three(pattern, kTyped[0]) ||
         tavrix_matches_all_three(pattern, kTyped[1]);
}

#endif
