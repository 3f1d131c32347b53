// SPDX-License-Identifier: LGPL-3.0-or-later
/* Notes on the disk of files that a client has changed and not closed yet.
 *
 * The event of a changed file is written when the file is closed. A server process that is killed
 * before leaves its notes behind, and whoever looks next writes the events for it: every server
 * process when a client connects, and the sweeper at its start and at each period.
 *
 * A note is a symbolic link in OPEN_NOTES_FOLDER: one system call makes it whole, one removes it.
 * Its name says which process wrote it, its text which file it is about and who changed that:
 *
 *   NAME   boot id "." process id "." start time of the process "." running number
 *   TEXT   inode " " uid " " length of the user's name " " the user's name, the full path
 *
 * Everything here wants root. Plain C, for the module and the sweeper alike. */
#ifndef TAVRIX_OPEN_NOTES_H
#define TAVRIX_OPEN_NOTES_H

#include <stdbool.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define OPEN_NOTES_FOLDER "/tavrix/.conf/changing"

/* The note of one open file; zeroed: there is none. */
struct open_note {
  char name[96];
};

/* A file that is about to change. */
struct changing_file {
  uint64_t inode;
  uid_t uid;        /* of the client */
  const char* user; /* its name, for the file's stamp */
  const char* path; /* full */
};

/* Writes a note; makes the folder when it is missing. 0, or -1 with errno: then nothing would tell
 * of the change if the process died, and it must not happen. */
int write_open_note(struct open_note* note, const struct changing_file* file);

/* Removes the note, if there is one; errno survives. */
void remove_open_note(struct open_note* note);

/* Writes the events of processes that are gone, once each, and removes their notes. A file that is
 * no longer where its note says asks for a rescan instead. Returns how many notes were settled, or
 * -1 with errno when the folder cannot be read; a missing one holds none. */
int settle_open_notes(void);

#ifdef __cplusplus
}
#endif

#endif
