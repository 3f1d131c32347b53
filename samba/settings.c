// SPDX-License-Identifier: GPL-3.0-or-later
/* The settings that a connection begins with, and warnings about the server's own settings. */
#include "tavrix_module.h"

#include <syslog.h>

void tavrix_complain(const char* format, ...) {
  char text[1024];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof text, format, values);
  va_end(values);
  DBG_ERR("%s\n", text);
  syslog(LOG_DAEMON | LOG_ERR, "tavrix: %s", text);
}

/* --- the block of shared memory --------------------------------------------------------------- */

/* A block that nobody filled is all zeros, so it has no staging directory. */
static bool is_filled(void) { return global_params[PARAM_STAGING_DIR].value.strval[0] != '\0'; }

/* Takes a new snapshot. When that fails, the snapshot that other connections of this process use
 * stays. */
static bool take_snapshot(void) {
  global_param_s before[PARAM_MAX_INDEX];
  const bool has_one = global_params != NULL;
  if (has_one) memcpy(before, global_params, sizeof before);
  if (read_tavrix_config() != 0) {
    tavrix_complain("the settings cannot be read (%s); nobody may connect", strerror(errno));
    return false;
  }
  if (is_filled()) return true;
  if (has_one) memcpy(global_params, before, sizeof before);
  tavrix_complain("the settings were never loaded (tavrixctl config load); nobody may connect");
  return false;
}

int tavrix_load_settings(void) {
  if (!take_snapshot()) return -1;
  tavrix_load_patterns();
  return 0;
}

/* --- the server's settings -------------------------------------------------------------------- */

/* Warns once a process: a client that connects again and again must not fill the journal. */
void tavrix_warn_about_share(struct vfs_handle_struct* handle) {
  static bool warned;
  if (warned) return;
  warned = true;
  const int share = SNUM(handle->conn);
  const char* name = lp_const_servicename(share);
  if (lp_parm_bool(share, "tavrix", "allow smb1", false)) {
    tavrix_complain("share %s: clients of SMB1 may change what they may only read", name);
  }
}
