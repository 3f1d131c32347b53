// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/notes/open_notes.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <inttypes.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include "eventstore.h"
#include "processing_functions.h"

#define BOOT_ID_SIZE 37
#define NAME_FORMAT "%.36s.%d.%llu.%llu"
#define USER_SIZE 256
/* A node's folder and a name in it, however long that is. */
#define LONGEST_NAME (OPEN_NOTES_NODE_SIZE + 1 + NAME_MAX)

/* Identifies a process: a later one with the same number differs in its boot or its start. */
struct owner {
  char boot[BOOT_ID_SIZE];
  pid_t pid;
  unsigned long long start; /* clock ticks since the boot */
};

/* Reads the beginning of a file in /proc as text. */
static bool read_text(const char* path, char* text, size_t size) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const ssize_t got = read(fd, text, size - 1);
  close(fd);
  text[got > 0 ? got : 0] = '\0';
  return got > 0;
}

static bool read_boot_id(char* boot) {
  return read_text("/proc/sys/kernel/random/boot_id", boot, BOOT_ID_SIZE) && strlen(boot) == 36;
}

/* Reads when the process began: field 22 of its stat file. Field 2 is its name in parentheses and
 * may hold anything, so the other fields are those after the last parenthesis. Returns false when
 * there is no such process; a process that has ended and was not waited for counts as none. */
static bool read_start(pid_t pid, unsigned long long* start) {
  char path[64];
  char text[1024];
  snprintf(path, sizeof path, "/proc/%d/stat", (int)pid);
  if (!read_text(path, text, sizeof text)) return false;
  const char* fields = strrchr(text, ')');
  char state = 'Z';
  return fields != NULL &&
         sscanf(fields,
                ") %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %*u %*u %*d %*d %*d %*d %*d %*d %llu",
                &state, start) == 2 &&
         state != 'Z' && state != 'X';
}

/* Returns the identity of this process, or NULL when it cannot be read. The answer is kept until
 * the process forks: a child has an identity of its own. */
static const struct owner* self(void) {
  static struct owner owner;
  if (owner.pid == getpid()) return &owner;
  struct owner now = {.pid = getpid()};
  if (!read_boot_id(now.boot) || !read_start(now.pid, &now.start)) return NULL;
  owner = now;
  return &owner;
}

static bool is_alive(const struct owner* owner) {
  const struct owner* here = self();
  unsigned long long start = 0;
  if (here == NULL) return true; /* unknown: leave the note to another process */
  return strcmp(owner->boot, here->boot) == 0 && read_start(owner->pid, &start) &&
         start == owner->start;
}

static bool parse_name(const char* name, struct owner* owner) {
  unsigned long long number = 0;
  int pid = 0;
  int end = 0;
  if (sscanf(name, "%36[0-9a-f-].%d.%llu.%llu%n", owner->boot, &pid, &owner->start, &number,
             &end) != 4) {
    return false;
  }
  owner->pid = pid;
  return name[end] == '\0' && strlen(owner->boot) == 36;
}

/* The name by which both folders of dump files end, or NULL. */
static const char* common_end(void) {
  if (global_params == NULL) return NULL;
  const char* staging = global_params[PARAM_STAGING_DIR].value.strval;
  const char* auditing = global_params[PARAM_AUDITING_DIR].value.strval;
  const char* end = strrchr(staging, '/');
  const char* other = strrchr(auditing, '/');
  if (end == NULL || other == NULL || strcmp(end, other) != 0) return NULL;
  return strcmp(staging, auditing) == 0 ? NULL : end + 1;
}

/* Returns the name of this node, or NULL on a machine that is none. It asks the kernel only where
 * the settings look like a node's. */
static const char* this_node(void) {
  static struct utsname names;
  const char* node = common_end();
  if (node == NULL || node[0] == '\0' || uname(&names) != 0) return NULL;
  names.nodename[strcspn(names.nodename, ".")] = '\0';
  return strcmp(node, names.nodename) == 0 && strlen(node) <= OPEN_NOTES_NODE_SIZE ? node : NULL;
}

/* Writes the way from the folder of notes to that of a node; "" for a machine that is none. */
static void way_to(const char* node, char* way, size_t size) {
  way[0] = '\0';
  if (node != NULL) snprintf(way, size, "%.*s/", OPEN_NOTES_NODE_SIZE, node);
}

/* Gives the note a name that no other note has or had. */
static bool next_name(struct open_note* note) {
  static unsigned long long number;
  const struct owner* here = self();
  char way[OPEN_NOTES_NODE_SIZE + 2];
  if (here == NULL) return false;
  way_to(this_node(), way, sizeof way);
  snprintf(note->name, sizeof note->name, "%s" NAME_FORMAT, way, here->boot, (int)here->pid,
           here->start, ++number);
  return true;
}

static void path_of(const char* name, char* path, size_t size) {
  snprintf(path, size, OPEN_NOTES_FOLDER "/%s", name);
}

static bool make_folders(void) {
  char folder[sizeof OPEN_NOTES_FOLDER + OPEN_NOTES_NODE_SIZE + 2];
  const char* node = this_node();
  if (mkdir(OPEN_NOTES_FOLDER, 0700) != 0 && errno != EEXIST) return false;
  if (node == NULL) return true;
  path_of(node, folder, sizeof folder);
  return mkdir(folder, 0700) == 0 || errno == EEXIST;
}

/* Writes the text of a note. A path that is too long is left out; settling such a note asks for a
 * rescan. */
static bool write_text(const struct changing_file* file, char* text, size_t size) {
  const size_t user = strlen(file->user);
  const int length = snprintf(text, size, "%" PRIu64 " %u %zu %s%s", file->inode,
                              (unsigned)file->uid, user, file->user, file->path);
  if (length > 0 && (size_t)length < size) return true;
  return user < USER_SIZE && snprintf(text, size, "%" PRIu64, file->inode) > 0;
}

int write_open_note(struct open_note* note, const struct changing_file* file) {
  char text[PATH_MAX];
  char path[sizeof OPEN_NOTES_FOLDER + sizeof note->name];
  errno = ENAMETOOLONG;
  if (!write_text(file, text, sizeof text) || !next_name(note)) return -1;
  path_of(note->name, path, sizeof path);
  if (symlink(text, path) == 0) return 0;
  if (errno == ENOENT && make_folders() && symlink(text, path) == 0) return 0;
  note->name[0] = '\0';
  return -1;
}

void remove_open_note(struct open_note* note) {
  const int keep = errno;
  char path[sizeof OPEN_NOTES_FOLDER + sizeof note->name];
  if (note->name[0] == '\0') return;
  path_of(note->name, path, sizeof path);
  unlink(path);
  note->name[0] = '\0';
  errno = keep;
}

/* --- notes of processes that are gone --------------------------------------------------------- */

static bool parse_text(char* text, struct changing_file* file, char* user) {
  unsigned uid = 0;
  size_t length = 0;
  int end = 0;
  if (sscanf(text, "%" SCNu64 " %u %zu%n", &file->inode, &uid, &length, &end) != 3 ||
      text[end] != ' ' || length >= USER_SIZE || strlen(text + end + 1) <= length) {
    return false;
  }
  memcpy(user, text + end + 1, length);
  user[length] = '\0';
  file->uid = uid;
  file->user = user;
  file->path = text + end + 1 + length;
  return file->path[0] == '/';
}

static bool is_still_there(const struct changing_file* file) {
  struct stat st;
  return lstat(file->path, &st) == 0 && S_ISREG(st.st_mode) && st.st_ino == file->inode;
}

/* Writes the event and the stamp that the close would have written. */
static void record_change(const struct changing_file* file) {
  connection_private_data_s record = {.user_name_as_passed_in = (char*)(uintptr_t)file->user};
  record.refresh_creds.euid = file->uid;
  ntimes_file_postprocess(file->path, &record);
}

static void settle(const char* path) {
  char text[PATH_MAX];
  char user[USER_SIZE];
  struct changing_file file;
  const ssize_t length = readlink(path, text, sizeof text - 1);
  text[length > 0 ? length : 0] = '\0';
  if (length > 0 && parse_text(text, &file, user) && is_still_there(&file)) {
    record_change(&file);
  } else {
    mark_event_db_as_rescan_needed("a server process ended with a changed file open");
  }
}

/* Renames the note to one of this process, so that nobody else settles it too. It is removed only
 * after its event was written: when this process dies before, another one settles it. */
static bool take_over(const char* name, struct open_note* mine) {
  char from[sizeof OPEN_NOTES_FOLDER + LONGEST_NAME + 1];
  char to[sizeof OPEN_NOTES_FOLDER + sizeof mine->name];
  if (!next_name(mine)) return false;
  path_of(name, from, sizeof from);
  path_of(mine->name, to, sizeof to);
  if (rename(from, to) != 0 && (errno != ENOENT || !make_folders() || rename(from, to) != 0)) {
    return false;
  }
  settle(to);
  remove_open_note(mine);
  return true;
}

/* The owners whose notes are settled. */
enum owners {
  ENDED,        /* processes of this machine that have ended, and those of its earlier runs */
  ENDED_LATELY, /* processes of this run that have ended */
  ALL,
};

static bool is_due(const struct owner* owner, enum owners owners) {
  if (owners == ALL) return true;
  if (is_alive(owner)) return false;
  const struct owner* here = self();
  return owners == ENDED || (here != NULL && strcmp(owner->boot, here->boot) == 0);
}

/* `way` leads from the folder of notes to the one that is looked through. */
static int settle_folder(const char* way, enum owners owners) {
  char path[sizeof OPEN_NOTES_FOLDER + OPEN_NOTES_NODE_SIZE + 2];
  path_of(way, path, sizeof path);
  DIR* folder = opendir(path);
  if (folder == NULL) return errno == ENOENT ? 0 : -1;
  int settled = 0;
  for (const struct dirent* entry = readdir(folder); entry != NULL; entry = readdir(folder)) {
    char name[LONGEST_NAME + 1];
    struct owner owner;
    struct open_note mine = {{0}};
    if (!parse_name(entry->d_name, &owner) || !is_due(&owner, owners)) continue;
    snprintf(name, sizeof name, "%s%s", way, entry->d_name);
    if (take_over(name, &mine)) ++settled;
  }
  closedir(folder);
  return settled;
}

int settle_open_notes(void) {
  char way[OPEN_NOTES_NODE_SIZE + 2];
  const char* node = this_node();
  if (node == NULL) return settle_folder("", ENDED);
  way_to(node, way, sizeof way);
  const int own = settle_folder(way, ENDED);
  /* A connection that is older than the cluster writes its notes where every machine did. Those of
   * other runs may be another node's. */
  const int shared = settle_folder("", ENDED_LATELY);
  return own < 0 || shared < 0 ? -1 : own + shared;
}

int settle_open_notes_of(const char* node) {
  char way[OPEN_NOTES_NODE_SIZE + 2];
  errno = EINVAL;
  if (this_node() == NULL || strlen(node) > OPEN_NOTES_NODE_SIZE) return -1;
  way_to(node, way, sizeof way);
  return settle_folder(way, ALL);
}
