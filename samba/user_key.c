// SPDX-License-Identifier: GPL-3.0-or-later
/* The name that a client has in the group list map. Two people never share a name. Needs nothing of
 * Samba, so that a test can call it. */
#include "user_key.h"

#include <errno.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

static bool is_empty(const char* text) { return text == NULL || text[0] == '\0'; }

static char* refuse(int error) {
  errno = error;
  return NULL;
}

static bool is_own(const struct tavrix_login* login) {
  if (is_empty(login->domain)) return true;
  return !is_empty(login->own_domain) && strcasecmp(login->domain, login->own_domain) == 0;
}

static char* qualified(const char* domain, const char* account) {
  const size_t size = strlen(domain) + 1 + strlen(account) + 1;
  char* name = malloc(size);
  if (name != NULL) snprintf(name, size, "%s\\%s", domain, account);
  return name;
}

char* tavrix_user_key(const struct tavrix_login* login) {
  const char* account = login->guest != NULL ? login->guest : login->account;
  if (is_empty(account) || strchr(account, '\\') != NULL) return refuse(EINVAL);
  if (login->guest != NULL || is_own(login)) return strdup(account);
  return qualified(login->domain, account);
}
