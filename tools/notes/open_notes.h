// SPDX-License-Identifier: LGPL-3.0-or-later
/* Notes on the disk of files that a client has changed and not closed yet.
 *
 * The event of a changed file is written when the file is closed. A server process that is killed
 * before that leaves its notes behind, and another process writes the events for it: every server
 * process looks for such notes when a client connects, and the sweeper at its start and in each
 * period.
 *
 * A note is a symbolic link in OPEN_NOTES_FOLDER: one system call makes it whole, one removes it.
 * Its name says which process wrote it; its text says which file changes and who changes it:
 *
 *   NAME   boot id "." process id "." start time of the process "." running number
 *   TEXT   inode " " uid " " length of the user's name " " the user's name, the full path
 *
 * A machine knows only of its own processes whether they live. So the nodes of a cluster, which
 * share the tree, keep their notes apart, each in a folder below that has its name. The settings
 * say that this machine is a node: the folders of dump files both end with its host name then.
 *
 * All functions need root. They are plain C, because the module uses them as well as the sweeper.
 */
#ifndef TAVRIX_OPEN_NOTES_H
#define TAVRIX_OPEN_NOTES_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#include "tavrix_api.h"

#ifdef __cplusplus
extern "C" {
#endif

#define OPEN_NOTES_FOLDER TAVRIX_CONF_FOLDER "/changing"

/* The longest name of a node. */
#define OPEN_NOTES_NODE_SIZE 64

/* The note of one open file, by its name below the folder of notes. All zero means that the file
 * has no note. */
struct open_note {
  char name[OPEN_NOTES_NODE_SIZE + 1 + 96];
};

/* A file that is about to change. */
struct changing_file {
  uint64_t inode;
  uid_t uid;        /* of the user who changes it */
  const char* user; /* the name of that user, for the file's stamp */
  const char* path; /* full path */
};

/* Writes a note, and makes the folder when it is missing. Returns 0, or -1 with errno. Without a
 * note the caller must refuse the change: nothing would report it if the process died. */
int write_open_note(struct open_note* note, const struct changing_file* file);

/* Removes the note, if there is one. Keeps errno. */
void remove_open_note(struct open_note* note);

/* Settles the notes of processes that are gone: writes the event of each, once, and removes it.
 * Asks for a rescan instead when the file is no longer where its note says. Returns the number of
 * notes settled, or -1 with errno when the folder cannot be read. A missing folder holds no notes.
 */
int settle_open_notes(void);

/* Settles all notes of another node of the cluster, which is gone with all its processes. Returns
 * as above, and -1 with EINVAL on a machine that is no node. */
int settle_open_notes_of(const char* node);

#ifdef __cplusplus
}
#endif

#endif
