// SPDX-License-Identifier: GPL-3.0-or-later
/* A client's identity: its name in the group list map, its user, and whether it is the agent. */
#include "tavrix_module.h"

#include "libcli/security/security.h"
#include "system/passwd.h"
#include "user_key.h"

extern struct current_user current_user; /* in none of smbd's headers */

/* The session of the request under way, or of the request that connects. */
static uint64_t session_id_of(struct connection_struct* conn) {
  return current_user.conn == conn ? current_user.vuid : conn->vuid;
}

/* The session as it logged in. "force user" puts another session in its place, which is only for
 * the rights on the disk. A connection that smbd makes for itself has no client to look up. */
static struct auth_session_info* session_of(struct connection_struct* conn) {
  struct auth_session_info* session = NULL;
  if (conn->sconn != NULL && conn->sconn->client != NULL &&
      NT_STATUS_IS_OK(
          smbXsrv_session_info_lookup(conn->sconn->client, session_id_of(conn), &session))) {
    return session;
  }
  return conn->session_info;
}

static bool is_guest(struct auth_session_info* session) {
  return security_session_user_level(session, NULL) < SECURITY_USER;
}

/* The domain whose accounts go by their bare names: a member's domain, else the server itself. */
static const char* own_domain(void) {
  return lp_server_role() == ROLE_DOMAIN_MEMBER ? lp_workgroup() : get_global_sam_name();
}

/* The name that the authentication confirmed. Not the sanitised name, which has an underscore for
 * each character that a path cannot have, and not the claimed name, which a guest may choose. */
static char* name_of(struct connection_struct* conn) {
  struct auth_session_info* session = session_of(conn);
  struct tavrix_login login = {.own_domain = own_domain()};
  if (is_guest(session) || is_guest(conn->session_info)) {
    login.guest = lp_guest_account();
  } else if (session->info != NULL) {
    login.account = session->info->account_name;
    login.domain = session->info->domain_name;
  }
  return tavrix_user_key(&login);
}

/* A domain member has accounts of several domains and puts the domain before the name. */
char* tavrix_key_of_account(const char* unix_name) {
  struct tavrix_login login = {.account = unix_name, .own_domain = own_domain()};
  const char* separator =
      lp_server_role() == ROLE_DOMAIN_MEMBER ? strchr(unix_name, *lp_winbind_separator()) : NULL;
  char* domain = NULL;
  if (separator != NULL) {
    domain = strndup(unix_name, (size_t)(separator - unix_name));
    if (domain == NULL) return NULL;
    login.domain = domain;
    login.account = separator + 1;
  }
  char* key = tavrix_user_key(&login);
  free(domain);
  return key;
}

static bool is_refused_computer(const connection_private_data_s* record) {
  return is_computer_name(record->user_name_as_passed_in) && !record->config.allow_computeracct;
}

/* The agent's user; -1: none. A name without an account is worth a line: the agent's own changes
 * would come back to it as a client's. */
static uid_t find_reserved_user(struct vfs_handle_struct* handle) {
  const char* reserved = tavrix_option(handle, "reserved user", "");
  if (reserved[0] == '\0') return (uid_t)-1;
  const struct passwd* account = getpwnam(reserved);
  if (account != NULL) return account->pw_uid;
  tavrix_complain("share %s: the reserved user %s has no account",
                  lp_const_servicename(SNUM(handle->conn)), reserved);
  return (uid_t)-1;
}

/* True for a client that works as root: the library takes changes of uid 0 for the appliance's own
 * and does not record them. */
static bool is_never_recorded(const connection_private_data_s* record) {
  if (record->refresh_creds.euid != 0 || record->reserved_user) return false;
  tavrix_complain("%s is refused: nothing that a client does as root is recorded",
                  record->user_name_as_passed_in);
  return true;
}

int tavrix_identify_client(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix) {
  connection_private_data_s* record = tavrix->own;
  const uid_t user = handle->conn->session_info->unix_token->uid;
  char* name = name_of(handle->conn);
  if (name == NULL) {
    tavrix_complain("a session without a name is refused: %s", strerror(errno));
    return -1;
  }
  talloc_free(discard_const_p(char, record->user_name_as_passed_in));
  record->user_name_as_passed_in = talloc_strdup(tavrix, name);
  free(name);
  if (record->user_name_as_passed_in == NULL) return -1;
  tavrix->login = handle->conn->session_info->unique_session_token;
  record->refresh_creds.euid = user;
  record->refresh_creds.permmap_refresh = record->refresh_creds.groupmap_refresh = time(NULL);
  record->config.allow_computeracct =
      lp_parm_bool(SNUM(handle->conn), "tavrix", "allow computer accounts", false);
  tavrix->reserved_uid = find_reserved_user(handle);
  record->reserved_user = tavrix->reserved_uid != (uid_t)-1 && tavrix->reserved_uid == user;
  return is_refused_computer(record) || is_never_recorded(record) ? -1 : 0;
}

/* --- another login within a session ----------------------------------------------------------- */

/* Drops the groups and verdicts of the user before: the library keeps the groups that it has when
 * it finds no new ones. */
static void forget_identity(connection_private_data_s* record) {
  free(record->groupmap.gids);
  record->groupmap = (process_trustees_s){.gids = NULL};
  record->vfs_table_cache.flush_tlb = TAVRIX_TLB_FLUSH_REQUESTED;
}

void tavrix_notice_login(struct vfs_handle_struct* handle, struct tavrix_connection* tavrix) {
  if (GUID_equal(&tavrix->login, &handle->conn->session_info->unique_session_token)) return;
  forget_identity(tavrix->own);
  tavrix->is_lost = tavrix_identify_client(handle, tavrix) != 0;
  if (!tavrix->is_lost) flush_perms_handler(SIGUSR1, tavrix->own);
}
