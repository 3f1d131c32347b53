// SPDX-License-Identifier: GPL-3.0-or-later
/* The SMB rights that a client has on an object.
 *
 * smbd trusts the access of a handle for as long as it is open. So a handle has a right only when a
 * decision grants it:
 *
 *   file, to read                 FSOP_OPEN_READ
 *   file, every other right       FSOP_OPEN_WRITE, which unlinking and renaming ask too
 *   folder, to list and enter     FSOP_OPENDIR. It gives the right to add too: the rules let
 *                                 everybody open folders for writing, and each added object is
 *                                 decided by itself.
 *   folder, its own attributes,   FSOP_MKDIR of a name in it, because a grant to open the folder
 *   times, extended attributes    for writing means nothing
 *   folder, to delete             FSOP_MKDIR of the folder itself, as renaming in place needs;
 *                                 never for one that must stay. Removing is decided again. */
#include "tavrix_module.h"

/* A name that no client can give, for questions about what may be made in a folder. */
#define NAME_OF_NOTHING "?tavrix?"

#define ADDING (SEC_DIR_ADD_FILE | SEC_DIR_ADD_SUBDIR)

/* An object that cannot be looked at counts as a folder: everybody may open folders for writing, so
 * a folder that was taken for a file would get the rights of a writer. */
bool tavrix_is_folder(const struct files_struct* fsp) {
  struct stat st;
  if (fsp->fsp_flags.is_directory) return true;
  if (VALID_STAT(fsp->fsp_name->st)) return S_ISDIR(fsp->fsp_name->st.st_ex_mode);
  return fstat(fsp_get_pathref_fd(fsp), &st) != 0 || S_ISDIR(st.st_mode);
}

bool tavrix_grants(struct tavrix_connection* tavrix, const char* full, e_fsop_type op) {
  connection_private_data_s* record = tavrix->record;
  int is_nav = 0;
  return record->reserved_user != 0 || vfs_enforce_perms(tavrix->tree, full, op, &record->groupmap,
                                                         0, &is_nav) == TXPERMS_HAS_PERMS;
}

/* The tree's root and the private area's own folders stay whoever asks, fixed folders unless an
 * administrator asks. A folder whose stamp cannot be read counts as fixed. */
bool tavrix_must_stay(const struct tavrix_connection* tavrix, const struct tavrix_name* name,
                      bool is_folder) {
  if (tavrix_is_tree(tavrix, name) || is_deleteable(name->name) == 0) return true;
  if (!is_folder || tavrix->record->groupmap.admin != 0) return false;
  return strncmp(name->name, "Shared", strlen("Shared")) == 0 &&
         is_fixed_folder(name->full) != NOT_FIXED_FOLDER;
}

uint32_t tavrix_all_rights_on(const struct tavrix_connection* tavrix,
                              const struct tavrix_name* name, bool is_folder) {
  const bool stays = tavrix_must_stay(tavrix, name, is_folder);
  return stays ? SEC_RIGHTS_FILE_ALL & ~SEC_STD_DELETE : SEC_RIGHTS_FILE_ALL;
}

bool tavrix_may_write_folder(struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  char* inside = talloc_asprintf(talloc_tos(), "%s/" NAME_OF_NOTHING, name->full);
  const bool granted = inside != NULL && tavrix_grants(tavrix, inside, FSOP_MKDIR);
  TALLOC_FREE(inside);
  return granted;
}

static bool may_rename_folder(struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  return tavrix_grants(tavrix, name->full, FSOP_MKDIR) && !tavrix_must_stay(tavrix, name, true);
}

static uint32_t rights_on_folder(struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  uint32_t rights = 0;
  if (!tavrix_grants(tavrix, name->full, FSOP_OPENDIR)) return 0;
  rights |= TAVRIX_READING;
  if (tavrix_may_write_folder(tavrix, name)) rights |= SEC_RIGHTS_DIR_ALL & ~SEC_STD_DELETE;
  if (may_rename_folder(tavrix, name)) rights |= SEC_STD_DELETE;
  return rights;
}

static uint32_t rights_on_file(struct tavrix_connection* tavrix, const struct tavrix_name* name) {
  if (tavrix_grants(tavrix, name->full, FSOP_OPEN_WRITE)) {
    return tavrix_all_rights_on(tavrix, name, false);
  }
  if (!tavrix_grants(tavrix, name->full, FSOP_OPEN_READ)) return 0;
  return TAVRIX_READING | (tavrix_may_always_be_deleted(name->name) ? SEC_STD_DELETE : 0);
}

uint32_t tavrix_rights_on(struct tavrix_connection* tavrix, const struct tavrix_name* name,
                          bool is_folder) {
  TAVRIX_DECISIONS();
  return is_folder ? rights_on_folder(tavrix, name) : rights_on_file(tavrix, name);
}

uint32_t tavrix_rights_to_ask_for(uint32_t rights, bool is_folder) {
  return is_folder && (rights & SEC_DIR_LIST) != 0 ? rights | ADDING : rights;
}

/* Clients map a share by opening its folders with all writing rights. Such a request is not refused
 * for the rights to attributes; its handle gets those that the client has. */
static uint32_t without_attributes(uint32_t asked, uint32_t rights) {
  const uint32_t attributes = SEC_DIR_WRITE_EA | SEC_DIR_WRITE_ATTRIBUTE;
  return (asked & ADDING) != 0 ? asked & ~(attributes & ~rights) : asked;
}

bool tavrix_resolve_access(uint32_t rights, bool is_folder, uint32_t* access_mask) {
  const bool maximum = (*access_mask & SEC_FLAG_MAXIMUM_ALLOWED) != 0;
  uint32_t asked = *access_mask & ~SEC_FLAG_MAXIMUM_ALLOWED;
  if (is_folder) asked = without_attributes(asked, rights);
  /* smbd itself judges the other bits: the privilege to read audit lists, and unused ones. */
  const uint32_t judged = asked & SEC_RIGHTS_FILE_ALL;
  if ((judged & ~tavrix_rights_to_ask_for(rights, is_folder)) != 0) return false;
  *access_mask = maximum ? asked | rights : asked;
  return true;
}
