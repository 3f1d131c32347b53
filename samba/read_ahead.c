// SPDX-License-Identifier: GPL-3.0-or-later
/* Reads the entries of a listed folder ahead, and decides each batch in one scope: one look for the
 * current map and one change of identity serve all of its entries. */
#include "read_ahead.h"

#define FIRST_BATCH 64 /* entries; each next batch has twice as many */
#define LARGEST_BATCH 256
#define ROOM 32768 /* bytes for the entries of a batch, besides those of the longest entry */
#define LONGEST_NAME PATH_MAX
#define LIFETIME_NS 1000000000 /* older verdicts are decided again */

struct tavrix_batch {
  size_t wanted; /* entries to read at once */
  size_t count;
  size_t next; /* the entry to hand out next */
  size_t used; /* bytes of the room */
  struct tavrix_read_entry entries[LARGEST_BATCH];
  char room[ROOM + sizeof(struct dirent) + LONGEST_NAME] __attribute__((aligned(8)));
};

/* --- reading ---------------------------------------------------------------------------------- */

static bool is_self_or_parent(const char* name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

/* The type that the library finds when it looks at the object. It looks behind a link. */
static int type_of(const struct dirent* entry) {
  if (entry->d_type == DT_LNK || entry->d_type == DT_UNKNOWN) return 0;
  return entry->d_type == DT_DIR ? FSTYPE_FOLDER : FSTYPE_FILE;
}

static struct tavrix_read_entry read_entry(struct dirent* entry, long after) {
  return (struct tavrix_read_entry){
      .question = {.name = is_self_or_parent(entry->d_name) ? NULL : entry->d_name,
                   .path_type = type_of(entry)},
      .dirent = entry,
      .after = after};
}

/* Copies the entry, because the next module overwrites it with the next one. Leaves out a name that
 * no path can hold: nobody can reach its object. */
static void add_entry(struct tavrix_batch* batch, const struct dirent* entry, long after) {
  const size_t length = strlen(entry->d_name);
  if (length > LONGEST_NAME) return;
  const size_t size = offsetof(struct dirent, d_name) + length + 1;
  struct dirent* copy = (struct dirent*)(batch->room + batch->used);
  memcpy(copy, entry, size);
  batch->used += (size + 7) & ~(size_t)7;
  batch->entries[batch->count++] = read_entry(copy, after);
}

static void read_entries(struct vfs_handle_struct* handle, struct tavrix_listing* listing) {
  struct tavrix_batch* batch = listing->batch;
  batch->count = batch->next = batch->used = 0;
  while (batch->count < batch->wanted && batch->used <= ROOM) {
    /* Without a status: it would be as old as the batch when the entry is handed out. */
    const struct dirent* entry = TAVRIX_NEXT_READDIR(handle, listing->fsp, listing->dirp, NULL);
    if (entry == NULL) break;
    add_entry(batch, entry, TAVRIX_NEXT_TELLDIR(handle, listing->dirp));
  }
  if (batch->wanted < LARGEST_BATCH) batch->wanted *= 2;
}

/* --- verdicts --------------------------------------------------------------------------------- */

static int64_t nanoseconds_since(struct timespec then) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (int64_t)(now.tv_sec - then.tv_sec) * 1000000000 + (now.tv_nsec - then.tv_nsec);
}

bool tavrix_verdicts_hold(struct tavrix_connection* tavrix, const struct tavrix_listing* listing) {
  return listing->record == tavrix->record && listing->generation == tavrix_generation(tavrix) &&
         nanoseconds_since(listing->decided) < LIFETIME_NS;
}

/* As root, so that one change of identity serves the whole batch. */
static void ask(struct tavrix_connection* tavrix, const struct tavrix_listing* listing,
                struct tavrix_read_entry* entries, size_t count) {
  TAVRIX_AS_ROOT();
  for (size_t i = 0; i < count; ++i) entries[i].question.verdict = TXPERMS_NO_PERM;
  tavrix_decide_entries(tavrix->tree, listing->folder, FSOP_STAT, tavrix->record,
                        &entries->question, sizeof *entries, count);
}

/* Refreshes the identity as the client: the decision becomes root. */
static void decide(struct tavrix_connection* tavrix, struct tavrix_listing* listing,
                   struct tavrix_read_entry* entries, size_t count) {
  refresh_credentials(tavrix->record);
  listing->record = tavrix->record;
  listing->generation = tavrix_generation(tavrix);
  clock_gettime(CLOCK_MONOTONIC, &listing->decided);
  ask(tavrix, listing, entries, count);
}

static bool is_visible(const struct tavrix_read_entry* entry) {
  return entry->question.name == NULL || entry->question.verdict == TXPERMS_HAS_PERMS;
}

bool tavrix_is_visible_as(struct tavrix_connection* tavrix, const struct tavrix_listing* listing,
                          const struct tavrix_read_entry* entry, int path_type) {
  struct tavrix_read_entry again = *entry;
  again.question.path_type = path_type;
  ask(tavrix, listing, &again, 1);
  return is_visible(&again);
}

/* --- handing out ------------------------------------------------------------------------------ */

static bool has_batch(struct tavrix_listing* listing) {
  if (listing->batch != NULL) return true;
  listing->batch = talloc_zero(listing, struct tavrix_batch);
  if (listing->batch != NULL) listing->batch->wanted = FIRST_BATCH;
  return listing->batch != NULL;
}

static const struct tavrix_read_entry* next_of_batch(struct vfs_handle_struct* handle,
                                                     struct tavrix_listing* listing) {
  struct tavrix_connection* tavrix = tavrix_connection_of(handle);
  struct tavrix_batch* batch = listing->batch;
  for (;;) {
    const bool is_used_up = batch->next == batch->count;
    if (is_used_up) read_entries(handle, listing);
    if (batch->count == 0) return NULL;
    if (is_used_up || !tavrix_verdicts_hold(tavrix, listing)) {
      decide(tavrix, listing, batch->entries + batch->next, batch->count - batch->next);
    }
    const struct tavrix_read_entry* entry = &batch->entries[batch->next++];
    if (is_visible(entry)) return entry;
  }
}

/* Without memory for a batch each entry is decided by itself. */
static const struct tavrix_read_entry* next_by_itself(struct vfs_handle_struct* handle,
                                                      struct tavrix_listing* listing) {
  for (;;) {
    struct dirent* entry = TAVRIX_NEXT_READDIR(handle, listing->fsp, listing->dirp, NULL);
    if (entry == NULL) return NULL;
    listing->single = read_entry(entry, TAVRIX_NEXT_TELLDIR(handle, listing->dirp));
    decide(tavrix_connection_of(handle), listing, &listing->single, 1);
    if (is_visible(&listing->single)) return &listing->single;
  }
}

const struct tavrix_read_entry* tavrix_next_visible(struct vfs_handle_struct* handle,
                                                    struct tavrix_listing* listing) {
  const struct tavrix_read_entry* entry =
      has_batch(listing) ? next_of_batch(handle, listing) : next_by_itself(handle, listing);
  const bool is_decided = entry != NULL && entry->question.name != NULL;
  listing->shown = is_decided ? entry->dirent : NULL;
  /* A client may keep the handle of a folder open long after it has listed it. */
  if (entry == NULL) TALLOC_FREE(listing->batch);
  return entry;
}

long tavrix_position(struct vfs_handle_struct* handle, const struct tavrix_listing* listing) {
  const struct tavrix_batch* batch = listing->batch;
  if (batch == NULL || batch->next == 0) return TAVRIX_NEXT_TELLDIR(handle, listing->dirp);
  return batch->entries[batch->next - 1].after;
}

void tavrix_drop_batch(struct tavrix_listing* listing) {
  struct tavrix_batch* batch = listing->batch;
  listing->shown = NULL;
  if (batch == NULL) return;
  batch->count = batch->next = 0;
  batch->wanted = FIRST_BATCH;
}
