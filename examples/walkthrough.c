// SPDX-License-Identifier: LGPL-3.0-or-later
/* Plays one client's session as a module of the file server does. It shows the hooks before and
 * after each operation, the owner of each piece of memory, and when the process is root. It needs
 * no Samba.
 *
 * usage: walkthrough [--reserved] ACCOUNT FOLDER
 *
 * Run it as root. ACCOUNT is a user of this machine, FOLDER a folder of the share, such as
 * Shared/Design. It prints a line for each step: the client's wish and its outcome. */
#ifndef _GNU_SOURCE
#define _GNU_SOURCE /* setresuid() */
#endif
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tavrix.h"

#define CLIENT_ADDRESS "192.0.2.7"
#define AUDIT 1 /* whether reads are recorded */

/* The protocol's FILE_OPEN and FILE_CREATE. */
enum { DISPOSITION_OPEN = 1, DISPOSITION_CREATE = 2 };

/* A connection as the module keeps it: the library's record, and a slot for the context of a hook
 * that leaves the process root. */
struct client {
  connection_private_data_s* record;
  tx_perm_ctx_t* perm_ctx;
  const struct passwd* account;
  const char* folder;
};

static void say(const char* what, int succeeded) {
  printf("%-26s %s\n", what, succeeded ? "done" : strerror(errno));
}

/* Returns to the client's identity after an operation that a hook allowed. The slot is null when
 * the process was root before the hook: there is nothing to give back then. errno stays the
 * operation's. */
static void give_root_back(struct client* client) {
  const int keep = errno;
  if (client->perm_ctx != NULL) tavrix_vfs_unbecome_root(client->perm_ctx);
  client->perm_ctx = NULL;
  errno = keep;
}

/* Gives a new object to the client: root has made it. */
static void give_to_client(const struct client* client, const char* full_path) {
  if (lchown(full_path, client->account->pw_uid, client->account->pw_gid) != 0) perror(full_path);
}

static char* join(const char* folder, const char* name) {
  char* path = get_full_path(folder, name);
  if (path == NULL) exit(2);
  return path;
}

/* --- the connection --- */

/* Runs as root, and fills the record before connect_preprocess() reads it. */
static int connect_client(struct client* client, int is_reserved) {
  static int connected_users;
  connection_private_data_s* record = calloc(1, sizeof *record);
  if (record == NULL) return -1;
  client->record = record;
  record->user_name_as_passed_in = client->account->pw_name;
  record->refresh_creds.euid = client->account->pw_uid;
  record->reserved_user = is_reserved;
  if (is_reserved) set_reserved_user_uid(client->account->pw_uid);
  return connect_preprocess(client->account->pw_name, record, AUDIT, &connected_users);
}

/* Takes the identity that a server process has between operations: the client's real and effective
 * uid and effective gid. The saved uid stays root's, which is the way back. */
static int become_client(const struct passwd* account) {
  if (setgroups(0, NULL) != 0 || setresgid(0, account->pw_gid, 0) != 0) return -1;
  return setresuid(account->pw_uid, account->pw_uid, 0);
}

static void disconnect_client(struct client* client) {
  if (setresuid(0, 0, 0) != 0) perror("setresuid"); /* disconnecting runs as root */
  disconnect_preprocess(client->record, AUDIT);
  free(client->record->groupmap.gids);
  free(client->record);
}

/* --- folders --- */

static void enter_share(struct client* client) {
  int result = chdir_preprocess("/", TAVRIX_TREE, client->record, &client->perm_ctx);
  if (result == 0) result = chdir(TAVRIX_TREE);
  give_root_back(client);
  say("enter the share", result == 0);
}

static void list_entries(struct client* client, DIR* stream) {
  char full_path[4096];
  int seen = 0;
  int hidden = 0;
  for (struct dirent* entry = readdir(stream); entry != NULL; entry = readdir(stream)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    int allowed = 0;
    readir_postprocess(&allowed, entry->d_name, client->folder, full_path, sizeof full_path,
                       TAVRIX_TREE, client->record);
    if (allowed == TXPERMS_HAS_PERMS) ++seen;
    if (allowed != TXPERMS_HAS_PERMS) ++hidden;
  }
  printf("%-26s %d seen, %d hidden\n", "list the folder", seen, hidden);
}

static void list_folder(struct client* client) {
  int is_nav = 0;
  DIR* stream = NULL;
  char* full_path = join(TAVRIX_TREE, client->folder);
  if (fdopendir_preprocess(TAVRIX_TREE, client->folder, 0, client->record, &is_nav,
                           &client->perm_ctx) == 0) {
    stream = opendir(full_path);
  }
  give_root_back(client);
  free(full_path);
  if (stream == NULL) {
    say("list the folder", 0);
    return;
  }
  list_entries(client, stream); /* the verdicts need no root */
  closedir(stream);
}

static void make_folder(struct client* client, const char* path) {
  char* full_path = join(TAVRIX_TREE, path);
  int result = mkdir_preprocess(TAVRIX_TREE, path, full_path, client->record, &client->perm_ctx);
  if (result == 0) result = mkdir(full_path, 0755);
  if (result == 0) give_to_client(client, full_path);
  give_root_back(client);
  if (result == 0) mkdir_postprocess(client->record, &full_path);
  say("make a folder", result == 0);
  free(full_path);
}

static void remove_folder(struct client* client, const char* path) {
  char* full_path = join(TAVRIX_TREE, path);
  int result = rmdir_preprocess(full_path, TAVRIX_TREE, path, client->record, &client->perm_ctx);
  if (result == 0) result = rmdir(full_path);
  give_root_back(client);
  if (result == 0) rmdir_postprocess(full_path, client->record);
  say("remove the folder", result == 0);
  free(full_path);
}

/* --- files --- */

static void create_file(struct client* client, const char* path) {
  char* full_path = join(TAVRIX_TREE, path);
  int exists = 0;
  int fd = -1;
  if (create_file_preprocess(1, &full_path, path, path, &client->perm_ctx, &exists, 0,
                             DISPOSITION_CREATE, 0, TAVRIX_TREE, client->record) == 0) {
    fd = open(full_path, O_CREAT | O_EXCL | O_WRONLY, 0644);
  }
  if (fd >= 0) give_to_client(client, full_path);
  give_root_back(client);
  if (fd >= 0) create_file_postprocess(client->record, full_path);
  say("create a file", fd >= 0);
  if (fd >= 0) close(fd);
  free(full_path);
}

/* open_preprocess() decides about opening and leaves the client's identity in place. The server
 * opens the file as root when somebody else owns it. */
static int open_file(struct client* client, const char* path, int flags) {
  char* full_path = join(TAVRIX_TREE, path);
  e_open_mode mode = mode2tavrixmode(flags);
  e_fsop_type op = FSOP_INVAL;
  int newly_created = 0; /* the hook only ever sets it */
  struct stat st;
  int fd = -1;
  if (open_preprocess(TAVRIX_TREE, path, &mode, &op, &full_path, &newly_created, 0, client->record,
                      &st, CLIENT_ADDRESS, &client->perm_ctx, AUDIT) == 0 &&
      raise_permissions(&client->perm_ctx) == 1) {
    fd = open(full_path, flags, 0644);
    give_root_back(client);
  }
  if (fd >= 0) {
    open_postprocess(&st, &client->perm_ctx, &full_path, newly_created, client->record);
  }
  free(full_path);
  return fd;
}

/* The first write sets is_modified; the close hook records the change and clears it. */
static void close_file(struct client* client, int fd, int is_modified) {
  modify_file_evt_s modified = {NULL, is_modified, 0};
  modify_file_evt_s* pmodify = &modified;
  close_preprocess(AUDIT, fd, client->record, &pmodify, 1, CLIENT_ADDRESS);
  close(fd);
}

static void write_file(struct client* client, const char* path) {
  static const char text[] = "What was said today.\n";
  const int fd = open_file(client, path, O_WRONLY);
  const int succeeded = fd >= 0 && write(fd, text, sizeof text - 1) == sizeof text - 1;
  say("write it and close", succeeded);
  if (fd >= 0) close_file(client, fd, succeeded);
}

static void read_file(struct client* client, const char* path) {
  char text[64];
  const int fd = open_file(client, path, O_RDONLY);
  say("read it and close", fd >= 0 && read(fd, text, sizeof text) >= 0);
  if (fd >= 0) close_file(client, fd, 0);
}

static void rename_file(struct client* client, const char* what, const char* from, const char* to) {
  char* old_path = join(TAVRIX_TREE, from);
  char* new_path = join(TAVRIX_TREE, to);
  int isdir = 0;
  int is_nav = 0;
  int result = rename_preprocess(TAVRIX_TREE, old_path, new_path, &client->perm_ctx, &isdir,
                                 client->record, &is_nav);
  if (result == 0) result = rename(old_path, new_path);
  give_root_back(client);
  if (result == 0) rename_postprocess(new_path, old_path, isdir, client->record);
  say(what, result == 0);
  free(old_path);
  free(new_path);
}

/* The hooks for times take no decision: ask about the file itself first. */
static void set_times(struct client* client, const char* path) {
  char* full_path = NULL;
  int result = stat_preprocess(client->record, path, TAVRIX_TREE, &client->perm_ctx);
  give_root_back(client);
  if (result == 0) {
    result = ntimes_file_preprocess(&full_path, TAVRIX_TREE, path, &client->perm_ctx);
    if (result == 0) result = utimensat(AT_FDCWD, full_path, NULL, 0);
    give_root_back(client);
    if (result == 0) ntimes_file_postprocess(full_path, client->record);
    free(full_path); /* the hook made it */
  }
  say("set its times", result == 0);
}

static void delete_file(struct client* client, const char* path) {
  char* full_path = join(TAVRIX_TREE, path);
  int result = unlink_preprocess(TAVRIX_TREE, path, full_path, client->record, &client->perm_ctx);
  if (result == 0) result = unlink(full_path);
  give_root_back(client);
  if (result == 0) unlink_postprocess(full_path, client->record);
  say("delete it", result == 0);
  free(full_path);
}

static void work(struct client* client) {
  char* minutes = join(client->folder, "Minutes");
  char* today = join(minutes, "today.txt");
  char* notes = join(minutes, "notes.txt");
  char* moved = join(client->folder, "notes.txt");
  enter_share(client);
  list_folder(client);
  make_folder(client, minutes);
  create_file(client, today);
  write_file(client, today);
  read_file(client, today);
  rename_file(client, "rename it", today, notes);
  rename_file(client, "move it up", notes, moved);
  set_times(client, moved);
  delete_file(client, moved);
  remove_folder(client, minutes);
  free(minutes);
  free(today);
  free(notes);
  free(moved);
}

int main(int argc, char** argv) {
  const int is_reserved = argc > 1 && strcmp(argv[1], "--reserved") == 0;
  if (argc != 3 + is_reserved) {
    fprintf(stderr, "usage: walkthrough [--reserved] ACCOUNT FOLDER\n");
    return 2;
  }
  struct client client = {.account = getpwnam(argv[1 + is_reserved]),
                          .folder = argv[2 + is_reserved]};
  if (client.account == NULL) {
    fprintf(stderr, "walkthrough: no such user: %s\n", argv[1 + is_reserved]);
    return 2;
  }
  /* Takes the process's copy of the settings. Every other call of the library needs it. */
  if (read_tavrix_config() != 0 || connect_client(&client, is_reserved) != 0) {
    fprintf(stderr, "walkthrough: cannot connect\n");
    return 2;
  }
  if (become_client(client.account) != 0) {
    perror("walkthrough");
    return 2;
  }
  work(&client);
  disconnect_client(&client);
  return 0;
}
