// SPDX-License-Identifier: GPL-3.0-or-later
/* Listing folders. A client sees the entries that it may ask the status of. They are read ahead and
 * decided in batches (read_ahead.c), and the verdict on the entry that was handed out last serves
 * smbd's next question, which is about that entry. */
#include "read_ahead.h"

#include "lib/util/dlinklist.h"

/* --- the listings of a connection ------------------------------------------------------------- */

static struct tavrix_listing* listing_of(struct vfs_handle_struct* handle, const DIR* dirp) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_listing* listing = tavrix != NULL ? tavrix->listings : NULL;
  while (listing != NULL && listing->dirp != dirp) listing = listing->next;
  return listing;
}

/* Takes the folder's present name: its own client may rename a folder while it lists it. Verdicts
 * on entries of another name are void then. */
static bool find_name(struct vfs_handle_struct* handle, struct tavrix_listing* listing) {
  struct tavrix_name name;
  const char* base_name = listing->fsp->fsp_name->base_name;
  if (tavrix_name_of(talloc_tos(), handle, base_name, &name) != 0) return false;
  const bool is_tree = tavrix_is_tree(tavrix_connection_of(handle), &name);
  const char* present = is_tree ? "." : name.name;
  if (listing->folder != NULL && strcmp(listing->folder, present) == 0) return true;
  TALLOC_FREE(listing->folder);
  listing->record = NULL;
  listing->folder = talloc_strdup(listing, present);
  if (listing->folder == NULL) errno = ENOMEM;
  return listing->folder != NULL;
}

static bool add_listing(struct vfs_handle_struct* handle, files_struct* fsp, DIR* dirp) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_listing* listing = talloc_zero(tavrix, struct tavrix_listing);
  if (listing == NULL) {
    errno = ENOMEM;
    return false;
  }
  listing->fsp = fsp;
  listing->dirp = dirp;
  DLIST_ADD(tavrix->listings, listing);
  return true;
}

static void remove_listing(struct vfs_handle_struct* handle, struct tavrix_listing* listing) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (listing == NULL) return;
  DLIST_REMOVE(tavrix->listings, listing);
  talloc_free(listing);
}

/* --- opening and closing ---------------------------------------------------------------------- */

static DIR* list_for_client(struct vfs_handle_struct* handle, files_struct* fsp, const char* mask,
                            uint32_t attributes) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_name name;
  if (tavrix_name_of(talloc_tos(), handle, fsp->fsp_name->base_name, &name) != 0) return NULL;
  const bool is_tree = tavrix_is_tree(tavrix, &name);
  TAVRIX_AS_ROOT_IF(!is_tree);
  int is_nav = 0;
  const int deletes = (fsp->access_mask & SEC_STD_DELETE) != 0;
  /* Everybody may list the tree's root. */
  const int asked = is_tree ? tavrix_raise(tavrix)
                            : fdopendir_preprocess(tavrix->tree, name.name, deletes, tavrix->record,
                                                   &is_nav, &tavrix->perm_ctx);
  if (asked != 0) return NULL;
  DIR* dirp = SMB_VFS_NEXT_FDOPENDIR(handle, fsp, mask, attributes);
  tavrix_give_back(tavrix);
  if (dirp == NULL || add_listing(handle, fsp, dirp)) return dirp;
  SMB_VFS_NEXT_CLOSEDIR(handle, dirp); /* a listing that cannot be filtered is refused */
  errno = ENOMEM;
  return NULL;
}

/* A listing without a mask is smbd's own: it looks for a name in other letters, or for entries left
 * in a folder that is removed. It must see everything, and each entry is decided when it is opened.
 * A refusal here would end the process, because smbd does not close the folder that it opened. */
DIR* tavrix_fdopendir(struct vfs_handle_struct* handle, files_struct* fsp, const char* mask,
                      uint32_t attributes) {
  TAVRIX_ENTER(handle);
  if (!tavrix_is_connected(handle)) return NULL;
  return mask != NULL ? list_for_client(handle, fsp, mask, attributes)
                      : SMB_VFS_NEXT_FDOPENDIR(handle, fsp, mask, attributes);
}

int tavrix_closedir(struct vfs_handle_struct* handle, DIR* dirp) {
  remove_listing(handle, listing_of(handle, dirp));
  return SMB_VFS_NEXT_CLOSEDIR(handle, dirp);
}

/* --- reading ---------------------------------------------------------------------------------- */

/* The status of an entry, as the next module's own reading would give it: none for a link, whose
 * target smbd may want. 0, or -1 without a status. */
static int look(struct vfs_handle_struct* handle, const struct tavrix_listing* listing,
                const struct dirent* entry, SMB_STRUCT_STAT* status) {
  const struct smb_filename* folder = listing->fsp->fsp_name;
  const struct smb_filename name = {.base_name = discard_const_p(char, entry->d_name),
                                    .flags = folder->flags,
                                    .twrp = folder->twrp};
  int result = SMB_VFS_NEXT_FSTATAT(handle, listing->fsp, &name, status, AT_SYMLINK_NOFOLLOW);
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  if (tavrix_was_refused(result) && tavrix_raise(tavrix) == 0) {
    result = SMB_VFS_NEXT_FSTATAT(handle, listing->fsp, &name, status, AT_SYMLINK_NOFOLLOW);
    tavrix_give_back(tavrix);
  }
  return result;
}

/* True if the name means an object of another type than the one that was read and decided. The
 * client then sees the entry if it may see that object. */
static bool has_another_type(const struct tavrix_read_entry* entry, const SMB_STRUCT_STAT* status,
                             int* type) {
  *type = S_ISDIR(status->st_ex_mode) ? FSTYPE_FOLDER : FSTYPE_FILE;
  if (S_ISLNK(status->st_ex_mode)) *type = 0;
  return entry->question.name != NULL && entry->question.path_type != 0 &&
         entry->question.path_type != *type;
}

/* Fills in the status of an entry. False if the client may not see it after all. */
static bool show(struct vfs_handle_struct* handle, const struct tavrix_listing* listing,
                 const struct tavrix_read_entry* entry, SMB_STRUCT_STAT* status) {
  SMB_STRUCT_STAT found;
  int type = 0;
  SET_STAT_INVALID(*status);
  if (look(handle, listing, entry->dirent, &found) != 0) return true;
  const bool wants_link = (listing->fsp->fsp_name->flags & SMB_FILENAME_POSIX_PATH) != 0;
  if (wants_link || !S_ISLNK(found.st_ex_mode)) *status = found;
  return !has_another_type(entry, &found, &type) ||
         tavrix_is_visible_as(tavrix_connection_of(handle), listing, entry, type);
}

/* Looks at the refresh files, as the client, when this is the listing's first use in a request. */
static bool begin_request(struct vfs_handle_struct* handle, struct tavrix_listing* listing) {
  const uint64_t request = tavrix_request(handle);
  if (listing->request == request) return true;
  if (!tavrix_is_connected(handle) || !find_name(handle, listing)) return false;
  listing->request = request;
  refresh_credentials(tavrix_connection_of(handle)->record);
  return true;
}

struct dirent* tavrix_readdir(struct vfs_handle_struct* handle, struct files_struct* dirfsp,
                              DIR* dirp, SMB_STRUCT_STAT* sbuf) {
  SMB_STRUCT_STAT unwanted;
  struct tavrix_listing* listing = listing_of(handle, dirp);
  if (listing == NULL) return TAVRIX_NEXT_READDIR(handle, dirfsp, dirp, sbuf);
  TAVRIX_ENTER(handle);
  if (!begin_request(handle, listing)) return NULL;
  for (;;) {
    const struct tavrix_read_entry* entry = tavrix_next_visible(handle, listing);
    if (entry == NULL) return NULL;
    /* The look decides an object again that has taken the entry's place, wanted or not. */
    if (show(handle, listing, entry, sbuf != NULL ? sbuf : &unwanted)) return entry->dirent;
  }
}

bool tavrix_is_shown(struct vfs_handle_struct* handle, const struct files_struct* dirfsp,
                     const struct smb_filename* smb_fname) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  const struct tavrix_listing* listing = tavrix != NULL ? tavrix->listings : NULL;
  while (listing != NULL && (listing->fsp != dirfsp || listing->shown == NULL)) {
    listing = listing->next;
  }
  return listing != NULL && smb_fname->stream_name == NULL &&
         strcmp(listing->shown->d_name, smb_fname->base_name) == 0 && !tavrix->is_lost &&
         listing->request == tavrix_request(handle) && tavrix_verdicts_hold(tavrix, listing);
}

/* --- positions -------------------------------------------------------------------------------- */

long tavrix_telldir(struct vfs_handle_struct* handle, DIR* dirp) {
  const struct tavrix_listing* listing = listing_of(handle, dirp);
  return listing != NULL ? tavrix_position(handle, listing) : TAVRIX_NEXT_TELLDIR(handle, dirp);
}

void tavrix_seekdir(struct vfs_handle_struct* handle, DIR* dirp, long offset) {
  struct tavrix_listing* listing = listing_of(handle, dirp);
  if (listing != NULL) tavrix_drop_batch(listing);
  TAVRIX_NEXT_SEEKDIR(handle, dirp, offset);
}

void tavrix_rewinddir(struct vfs_handle_struct* handle, DIR* dirp) {
  struct tavrix_listing* listing = listing_of(handle, dirp);
  if (listing != NULL) tavrix_drop_batch(listing);
  SMB_VFS_NEXT_REWINDDIR(handle, dirp);
}
