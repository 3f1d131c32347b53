// SPDX-License-Identifier: GPL-3.0-or-later
/* The name that a client has in the group list map. */
#ifndef TAVRIX_USER_KEY_H
#define TAVRIX_USER_KEY_H

#ifdef __cplusplus
extern "C" {
#endif

/* A session, as its authentication confirmed it: never a name that the client merely claims. */
struct tavrix_login {
  const char* account;
  const char* domain;     /* the account's domain; null or empty: this server */
  const char* own_domain; /* the domain whose accounts go by their bare names */
  const char* guest;      /* the guest account for a guest session, else null */
};

/* A new string, or null with errno: EINVAL for a session that has no name, ENOMEM.
 *
 * An account of the own domain is "anna", one of another domain "DOMAIN\anna", a guest the guest
 * account. A bare name with a backslash is refused, because it would read as a foreign one. */
char* tavrix_user_key(const struct tavrix_login* login);

#ifdef __cplusplus
}
#endif

#endif
