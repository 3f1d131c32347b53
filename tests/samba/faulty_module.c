// SPDX-License-Identifier: GPL-3.0-or-later
/* Linked into a variant of the module: each call that can fail is made to, one after another. The
 * option "tavrix:fault file" names a file with a number: the failing call of this process, counted
 * from 1. What failed is noted in a file beside it. */
#include "samba/tavrix_module.h"

#define SITES 512
#define OCCASIONS 3 /* a place in the code that is reached more often is not tried again */

static void note(const char* path, const char* call) {
  char name[PATH_MAX];
  snprintf(name, sizeof name, "%s.hit", path);
  FILE* file = fopen(name, "a");
  if (file == NULL) return;
  fprintf(file, "%s\n", call);
  fclose(file);
}

/* 0: none. */
static int wanted(const char** path) {
  static int number = -1;
  static char name[PATH_MAX];
  if (number == -1) {
    snprintf(name, sizeof name, "%s",
             lp_parm_const_string(GLOBAL_SECTION_SNUM, "tavrix", "fault file", "/nowhere"));
    FILE* file = fopen(name, "r");
    if (file == NULL || fscanf(file, "%d", &number) != 1) number = 0;
    if (file != NULL) fclose(file);
  }
  *path = name;
  return number;
}

static bool is_worn(const void* site) {
  static const void* known[SITES];
  static int seen[SITES];
  for (int i = 0; i < SITES; ++i) {
    if (known[i] == NULL) known[i] = site;
    if (known[i] == site) return ++seen[i] > OCCASIONS;
  }
  return true;
}

static bool fails(const char* call, const void* site) {
  static int count;
  const char* path = NULL;
  const int number = wanted(&path);
  if (is_worn(site) || ++count != number) return false;
  /* Not by smbd's own change to root, which comes back as the client and not as what was there. */
  const uid_t user = geteuid();
  if (seteuid(0) == 0) note(path, call);
  if (seteuid(user) != 0) abort();
  errno = ENOMEM;
  return true;
}
#define FAILS(call) fails(call, __builtin_return_address(0))

/* --- memory ----------------------------------------------------------------------------------- */

void* __real_calloc(size_t number, size_t size);
void* __wrap_calloc(size_t number, size_t size) {
  return FAILS("calloc") ? NULL : __real_calloc(number, size);
}

void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) { return FAILS("malloc") ? NULL : __real_malloc(size); }

char* __real_strdup(const char* text);
char* __wrap_strdup(const char* text) { return FAILS("strdup") ? NULL : __real_strdup(text); }

char* __real_realpath(const char* path, char* resolved);
char* __wrap_realpath(const char* path, char* resolved) {
  return FAILS("realpath") ? NULL : __real_realpath(path, resolved);
}

char* __wrap_talloc_asprintf(const void* context, const char* format, ...) {
  if (FAILS("talloc_asprintf")) return NULL;
  va_list values;
  va_start(values, format);
  char* text = talloc_vasprintf(context, format, values);
  va_end(values);
  return text;
}

char* __real_talloc_strdup(const void* context, const char* text);
char* __wrap_talloc_strdup(const void* context, const char* text) {
  return FAILS("talloc_strdup") ? NULL : __real_talloc_strdup(context, text);
}

void* __real__talloc_zero(const void* context, size_t size, const char* name);
void* __wrap__talloc_zero(const void* context, size_t size, const char* name) {
  return FAILS("talloc_zero") ? NULL : __real__talloc_zero(context, size, name);
}

void* __real_vfs_add_fsp_extension_notype(vfs_handle_struct* handle, files_struct* fsp, size_t size,
                                          void (*destroy)(void*));
void* __wrap_vfs_add_fsp_extension_notype(vfs_handle_struct* handle, files_struct* fsp, size_t size,
                                          void (*destroy)(void*)) {
  return FAILS("vfs_add_fsp_extension")
             ? NULL
             : __real_vfs_add_fsp_extension_notype(handle, fsp, size, destroy);
}

/* --- names ------------------------------------------------------------------------------------ */

struct smb_filename* __real_full_path_from_dirfsp_atname(TALLOC_CTX* context,
                                                         const struct files_struct* dirfsp,
                                                         const struct smb_filename* name);
struct smb_filename* __wrap_full_path_from_dirfsp_atname(TALLOC_CTX* context,
                                                         const struct files_struct* dirfsp,
                                                         const struct smb_filename* name) {
  return FAILS("full_path_from_dirfsp_atname")
             ? NULL
             : __real_full_path_from_dirfsp_atname(context, dirfsp, name);
}

int __real_tavrix_name_of(TALLOC_CTX* context, vfs_handle_struct* handle, const char* name,
                          struct tavrix_name* out);
int __wrap_tavrix_name_of(TALLOC_CTX* context, vfs_handle_struct* handle, const char* name,
                          struct tavrix_name* out) {
  const struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  const int result = __real_tavrix_name_of(context, handle, name, out);
  /* The root's name is there already, and cannot fail: smbd goes back to it, or ends. */
  if (result == 0 && tavrix_is_tree(tavrix, out)) return 0;
  return FAILS("tavrix_name_of") ? -1 : result;
}

int __real_tavrix_name_at(TALLOC_CTX* context, vfs_handle_struct* handle,
                          const struct files_struct* dirfsp, const struct smb_filename* name,
                          struct tavrix_name* out);
int __wrap_tavrix_name_at(TALLOC_CTX* context, vfs_handle_struct* handle,
                          const struct files_struct* dirfsp, const struct smb_filename* name,
                          struct tavrix_name* out) {
  return FAILS("tavrix_name_at") ? -1 : __real_tavrix_name_at(context, handle, dirfsp, name, out);
}

int __real_tavrix_name_in_share(TALLOC_CTX* context, vfs_handle_struct* handle, const char* name,
                                struct tavrix_name* out);
int __wrap_tavrix_name_in_share(TALLOC_CTX* context, vfs_handle_struct* handle, const char* name,
                                struct tavrix_name* out) {
  return FAILS("tavrix_name_in_share") ? -1
                                       : __real_tavrix_name_in_share(context, handle, name, out);
}

int __real_tavrix_name_of_fd(TALLOC_CTX* context, vfs_handle_struct* handle, int fd,
                             struct tavrix_name* out);
int __wrap_tavrix_name_of_fd(TALLOC_CTX* context, vfs_handle_struct* handle, int fd,
                             struct tavrix_name* out) {
  return FAILS("tavrix_name_of_fd") ? -1 : __real_tavrix_name_of_fd(context, handle, fd, out);
}

/* --- the session ------------------------------------------------------------------------------ */

int __real_tavrix_session_begin(void);
int __wrap_tavrix_session_begin(void) {
  return FAILS("tavrix_session_begin") ? -1 : __real_tavrix_session_begin();
}

struct tevent_timer* __real__tevent_add_timer(struct tevent_context* events, TALLOC_CTX* owner,
                                              struct timeval when, tevent_timer_handler_t handler,
                                              void* data, const char* name, const char* location);
struct tevent_timer* __wrap__tevent_add_timer(struct tevent_context* events, TALLOC_CTX* owner,
                                              struct timeval when, tevent_timer_handler_t handler,
                                              void* data, const char* name, const char* location) {
  return FAILS("tevent_add_timer")
             ? NULL
             : __real__tevent_add_timer(events, owner, when, handler, data, name, location);
}

/* --- root ------------------------------------------------------------------------------------- */

int __real_setresuid(uid_t real, uid_t effective, uid_t saved);
int __wrap_setresuid(uid_t real, uid_t effective, uid_t saved) {
  return FAILS("setresuid") ? -1 : __real_setresuid(real, effective, saved);
}
