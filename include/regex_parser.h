// SPDX-License-Identifier: LGPL-3.0-or-later
/* File names against POSIX extended regular expressions, whatever the case. A pattern matches
 * anywhere in a name unless it anchors itself. */
#ifndef TAVRIX_REGEX_PARSER_H
#define TAVRIX_REGEX_PARSER_H

#include <regex.h>

#include "tavrix_api.h"

TAVRIX_BEGIN_DECLS

#define TAVRIX_REGEX_FLAGS (REG_EXTENDED | REG_ICASE | REG_NOSUB)
#define TAVRIX_MAX_PATTERNS 256

enum e_regex_matchres TAVRIX_ENUM_INT {
  REGEX_ERROR = -1,
  REGEX_FALSE = 0,
  REGEX_TRUE = 1,
};
typedef enum e_regex_matchres e_regex_matchres;

struct regex_list_elem_s {
  char* pattern;             /* owned */
  regex_t* compiled_pattern; /* owned */
};
typedef struct regex_list_elem_s regex_list_elem_s;
typedef struct regex_list_elem_s regex_list_elem;

struct pattern_buf_s {
  int num_elems; /* lines of the pattern file; may pass the array, see read_and_compile_patterns */
  regex_list_elem elems[TAVRIX_MAX_PATTERNS];
};
typedef struct pattern_buf_s pattern_buf_s;
typedef struct pattern_buf_s pattern_buf_t;

/* Compiles, matches once, forgets. REGEX_ERROR for a null argument or a pattern that is none. */
TAVRIX_API e_regex_matchres match_regex_string(const char* pattern, const char* strng);
/* Compiles into `*reg_buf`, which is allocated when null and is the caller's: regfree(), free().
 * 1 on success, -1 on failure. */
TAVRIX_API int get_regex_matchbuf(const char* pattern, regex_t** reg_buf);
TAVRIX_API e_regex_matchres match_string_with_regex_buf(const char* strng, const regex_t* regbuf);

TAVRIX_END_DECLS

#endif
