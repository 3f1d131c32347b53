// SPDX-License-Identifier: GPL-3.0-or-later
/* The patterns of file names that everybody may delete, from the file that the settings name. */
#include "tavrix_module.h"

#include "regex_parser/pattern_reach.h"

/* The file that the library read last. */
static struct {
  char path[TAVRIX_PARAM_STRVAL_SIZE];
  struct stat status;
  bool is_usable;
} last_file;

static bool is_unchanged(const char* path, const struct stat* status) {
  const struct stat* before = &last_file.status;
  return strcmp(path, last_file.path) == 0 && before->st_dev == status->st_dev &&
         before->st_ino == status->st_ino && before->st_size == status->st_size &&
         before->st_mtim.tv_sec == status->st_mtim.tv_sec &&
         before->st_mtim.tv_nsec == status->st_mtim.tv_nsec &&
         before->st_ctim.tv_sec == status->st_ctim.tv_sec &&
         before->st_ctim.tv_nsec == status->st_ctim.tv_nsec;
}

/* True if one of the patterns matches every name: an empty line, ".*" or ".". A slip of the pen
 * must not let everybody delete everything. */
static bool matches_every_name(const pattern_buf_s* patterns) {
  for (int i = 0; i < patterns->num_elems && i < TAVRIX_MAX_PATTERNS; ++i) {
    if (tavrix_matches_every_name(patterns->elems[i].compiled_pattern)) return true;
  }
  return false;
}

static bool read_patterns(const char* path) {
  if (read_and_compile_patterns() == -1) return false;
  if (!matches_every_name(&g_tavrix_pattern_buf)) return true;
  DBG_ERR(
      "a line of %s matches every name: no pattern of it is used; \"tavrixctl patterns check\" "
      "names the line\n",
      path);
  return false;
}

void tavrix_load_patterns(void) {
  const char* path = global_params[PARAM_REGEX_FILE_NAME].value.strval;
  struct stat status = {0};
  if (global_params[PARAM_CHECK_REGEX_UNLINK].value.intval == 0 || path[0] == '\0') return;
  /* The library never closes the file after reading it, so an unchanged file is read only once. */
  const bool exists = stat(path, &status) == 0;
  if (exists && is_unchanged(path, &status)) return;
  last_file.is_usable = read_patterns(path);
  last_file.status = status;
  snprintf(last_file.path, sizeof last_file.path, "%s", path);
}

bool tavrix_may_always_be_deleted(const char* name) {
  const char* path = global_params[PARAM_REGEX_FILE_NAME].value.strval;
  if (global_params[PARAM_CHECK_REGEX_UNLINK].value.intval == 0) return false;
  if (!last_file.is_usable || strcmp(path, last_file.path) != 0) return false;
  char* last = child_from_path(name);
  const bool found = last != NULL && is_deletable_file(last) == 1;
  free(last);
  return found;
}
