// SPDX-License-Identifier: GPL-3.0-or-later
/* The server that loads the module. The module works with structures that Samba keeps to itself and
 * changes from series to series, so it registers with a server of its own series only. A server
 * where it does not register refuses every client of its shares. */
#include "tavrix_module.h"

#include <syslog.h>

#include "private_symbols.h"

#define TEXT_OF(value) TEXT(value)
#define TEXT(value) #value
#define MARK "TAVRIX_MODULE_FOR="

/* The server that the module is built for. tavrixctl finds this text in the file, by its beginning.
 */
static const char built_for[] __attribute__((used)) = MARK
    "Samba " TAVRIX_SAMBA_SERIES ", SMB_VFS_INTERFACE_VERSION " TEXT_OF(TAVRIX_INTERFACE_VERSION);

static const char* series(void) { return built_for + strlen(MARK "Samba "); }

static bool is_present(const char* name) {
  const struct tavrix_private_symbol* symbol = tavrix_private_symbols;
  while (symbol->name != NULL && strcmp(symbol->name, name) != 0) ++symbol;
  return symbol->name != NULL && symbol->address != NULL;
}

static bool has_log(void) {
  return is_present("debuglevel_get_class") && is_present("dbghdrclass") && is_present("dbgtext");
}

/* A server that lacks names may lack those of its own log. */
static void refuse(const char* reason) {
  const char* text = built_for + strlen(MARK);
  static const char format[] =
      "the module %s is built for %s, and %s; nobody may connect until a module for this server is "
      "installed";
  if (has_log()) {
    tavrix_complain(format, TAVRIX_MODULE_NAME, text, reason);
  } else {
    char line[1024];
    snprintf(line, sizeof line, format, TAVRIX_MODULE_NAME, text, reason);
    syslog(LOG_DAEMON | LOG_ERR, "tavrix: %s", line);
  }
}

static const char* server_version(void) {
  return is_present("samba_version_string") ? samba_version_string() : "of an unknown version";
}

static bool is_of_this_series(void) {
  const size_t length = strcspn(series(), ",");
  const char* version = server_version();
  if (strncmp(version, series(), length) == 0 && version[length] == '.') return true;
  char reason[256];
  snprintf(reason, sizeof reason, "this server is Samba %s", version);
  refuse(reason);
  return false;
}

static bool has_all_names(void) {
  const char* first = NULL;
  unsigned others = 0;
  for (const struct tavrix_private_symbol* symbol = tavrix_private_symbols; symbol->name != NULL;
       ++symbol) {
    if (symbol->address != NULL) continue;
    if (first != NULL) ++others;
    if (first == NULL) first = symbol->name;
  }
  if (first == NULL) return true;
  char reason[256];
  snprintf(reason, sizeof reason, "this server, Samba %s, has no %s%s", server_version(), first,
           others != 0 ? " and lacks other names too" : "");
  refuse(reason);
  return false;
}

NTSTATUS tavrix_register(const struct vfs_fn_pointers* functions) {
  if (!is_of_this_series() || !has_all_names()) return NT_STATUS_REVISION_MISMATCH;
  const NTSTATUS status = smb_register_vfs(TAVRIX_INTERFACE_VERSION, TAVRIX_MODULE_NAME, functions);
  if (NT_STATUS_EQUAL(status, NT_STATUS_OBJECT_TYPE_MISMATCH)) {
    char reason[256];
    snprintf(reason, sizeof reason, "this server, Samba %s, has another version of the interface",
             server_version());
    refuse(reason);
  }
  return status;
}
