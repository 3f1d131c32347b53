// SPDX-License-Identifier: GPL-3.0-or-later
/* Names in other letters, on a share where case does not matter. smbd first asks about a name as
 * the client spelled it, and looks for other spellings when that name is missing. The decision
 * about the private area looks at the users' folders on the disk. It must find them under any
 * spelling: smbd would take a refusal as final where a missing name makes it look further. */
#include "tavrix_module.h"

#define AREA "private"

static bool is_in_private_area(const char* name) {
  const size_t length = strlen(AREA);
  return tavrix_strncasecmp(name, AREA, (int)length) == 0 &&
         (name[length] == '\0' || name[length] == '/');
}

static bool is_there(const char* folder, const char* name, size_t length) {
  struct stat st;
  char path[PATH_MAX];
  const int written = snprintf(path, sizeof path, "%s/%.*s", folder, (int)length, name);
  return written > 0 && (size_t)written < sizeof path && lstat(path, &st) == 0;
}

/* The entry that differs from the name only in case; null: none, or no memory. */
static char* find_entry(TALLOC_CTX* ctx, const char* folder, const char* wanted) {
  char* found = NULL;
  DIR* dir = opendir(folder);
  if (dir == NULL) return NULL;
  for (const struct dirent* entry; found == NULL && (entry = readdir(dir)) != NULL;) {
    if (strcasecmp_m(entry->d_name, wanted) == 0) found = talloc_strdup(ctx, entry->d_name);
  }
  closedir(dir);
  return found;
}

/* The path of the folder's entry with that name, as the disk spells it. A name without an entry
 * keeps its spelling. */
static char* spell(TALLOC_CTX* ctx, const char* folder, const char* name, size_t length) {
  char* wanted = talloc_strndup(ctx, name, length);
  if (wanted == NULL) return NULL;
  const char* found = is_there(folder, name, length) ? NULL : find_entry(ctx, folder, wanted);
  return talloc_asprintf(ctx, "%s/%s", folder, found != NULL ? found : wanted);
}

/* Respells the area and the user's folder in it; smbd finds the rest by itself. */
static char* spell_private(TALLOC_CTX* ctx, const char* tree, const char* name) {
  const size_t area = strcspn(name, "/");
  char* path = spell(ctx, tree, name, area);
  name += area;
  while (name[0] == '/') ++name;
  if (path == NULL || name[0] == '\0') return path;
  const size_t user = strcspn(name, "/");
  path = spell(ctx, path, name, user);
  return path != NULL ? talloc_strdup_append(path, name + user) : NULL;
}

int tavrix_spell(TALLOC_CTX* ctx, struct vfs_handle_struct* handle, struct tavrix_name* name) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (handle->conn->case_sensitive || tavrix_is_tree(tavrix, name)) return 0;
  if (!is_in_private_area(name->name)) return 0;
  TAVRIX_AS_ROOT();
  if (is_there(tavrix->tree, name->name, strlen(name->name))) return 0;
  name->full = spell_private(ctx, tavrix->tree, name->name);
  if (name->full == NULL) {
    errno = ENOMEM;
    return -1;
  }
  name->name = name->full + strlen(tavrix->tree) + 1;
  return 0;
}
