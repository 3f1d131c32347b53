// SPDX-License-Identifier: LGPL-3.0-or-later
/* A program in C that loads the library and uses a little of everything. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tavrix.h"

static int expect(int good, const char* what) {
  if (!good) fprintf(stderr, "wrong: %s\n", what);
  return good ? 0 : 1;
}

int main(void) {
  int wrong = 0;
  char* path = normalize_path("/a//b/../c/");
  wrong += expect(path != NULL && strcmp(path, "/a/c") == 0, "normalize_path");
  free(path);
  char* parent = parent_dir_from_path("/a/c");
  wrong += expect(parent != NULL && strcmp(parent, "/a") == 0, "parent_dir_from_path");
  free(parent);
  wrong += expect(tavrix_strncasecmp("abc", "ABD", 2) == 0, "tavrix_strncasecmp");
  wrong += expect(enforce_tavrix_permissions(FSOP_STAT, FSTYPE_FOLDER, 8, 8) == TXPERMS_HAS_PERMS,
                  "enforce_tavrix_permissions");
  wrong += expect(is_special_folder_file(".DS_Store") == 1, "is_special_folder_file");
  wrong += expect(global_params == NULL, "global_params");
  wrong += expect(get_next_perm_table_key(0) == 0x7065726a, "get_next_perm_table_key");

  tavrix_acl_t* acl = NULL;
  create_empty_acl(&acl);
  add_ace_to_acl(acl, ACE_TYPE_USER, 5);
  wrong += expect(acl->num_aces == 1, "add_ace_to_acl");
  free_ACL(acl);
  free(acl);

  memsummary_s summary;
  memset(&summary, 0, sizeof summary);
  summary.total_fselems = 3;
  summary.total_aces = 5;
  summary.total_namelen = 21;
  estimate_shmbe_size(&summary);
  wrong += expect(summary.memsize == 437, "estimate_shmbe_size");
  return wrong == 0 ? 0 : 1;
}
