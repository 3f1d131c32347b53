// SPDX-License-Identifier: LGPL-3.0-or-later
// The tables of the history, and the numbers in them. docs/history.md describes them for people.
//
// A text is the bytes of the record as they stand, UTF-8 or not, and is compared byte by byte. A
// time is in microseconds since the epoch. A record of a read knows only its second.
#pragma once

#include <cstdint>

namespace tavrix::history {

// The value of PRAGMA user_version. A change of the tables raises it, and tools/history/migrations
// has the step from the version before.
constexpr int kSchemaVersion = 2;

// Values of `op` up to 63 are those of VFSEvent__OpType; this one is a read that was audited.
constexpr int kReadOperation = 64;

constexpr const char* kSchema = R"sql(
CREATE TABLE records (
  id INTEGER PRIMARY KEY,    -- in the order of taking
  time INTEGER NOT NULL,
  op INTEGER NOT NULL,
  folder INTEGER NOT NULL,   -- 1 for a folder, 0 for a file
  uid INTEGER NOT NULL,
  pid INTEGER,               -- the server process; null for a read
  path TEXT NOT NULL,
  target TEXT,               -- the path after a rename
  user TEXT,                 -- the name that the record brings, if it does
  address TEXT,              -- the client's address; reads only
  size INTEGER,              -- the file's size; reads only
  dump INTEGER NOT NULL      -- the row of `dumps`
);
CREATE INDEX records_by_path ON records (path, time, op, uid);
CREATE INDEX records_by_target ON records (target, time) WHERE target IS NOT NULL;
CREATE INDEX records_by_time ON records (time);
CREATE INDEX records_by_uid ON records (uid, time);

-- One row for each dump file that was taken, until its last record is removed.
CREATE TABLE dumps (
  id INTEGER PRIMARY KEY,
  kind INTEGER NOT NULL,     -- 0 events, 1 reads
  name TEXT NOT NULL,        -- of the link that was taken
  inode INTEGER NOT NULL,
  mtime INTEGER NOT NULL,    -- in nanoseconds
  size INTEGER NOT NULL,
  hash BLOB NOT NULL,        -- SHA-256 of the content
  taken INTEGER NOT NULL,    -- never smaller than in the row before
  records INTEGER NOT NULL,
  newest INTEGER NOT NULL,   -- the greatest `time` of its records
  node TEXT,                 -- the node whose records they are; null on a machine alone
  UNIQUE (inode, mtime, size, hash)
);
CREATE INDEX dumps_by_taken ON dumps (taken);

-- Events in the life of the history itself: gaps, refused dumps, mass changes.
CREATE TABLE notices (
  id INTEGER PRIMARY KEY,
  time INTEGER NOT NULL,
  kind TEXT NOT NULL,
  uid INTEGER,               -- who did it, for a mass change
  count INTEGER,             -- how many
  text TEXT NOT NULL         -- a sentence
);
CREATE INDEX notices_by_time ON notices (time);

CREATE TABLE meta (
  key TEXT PRIMARY KEY,
  value
) WITHOUT ROWID;
)sql";

// Keys of `meta`. The values are times.
constexpr const char* kMetaSince = "since";    // the history was begun
constexpr const char* kMetaTaken = "taken";    // the last dump was taken
constexpr const char* kMetaPruned = "pruned";  // older records were removed; absent until then

// Kinds of notices.
constexpr const char* kNoticeGap = "gap";      // events were lost: an alarm of the event pipeline
constexpr const char* kNoticeBegun = "begun";  // a damaged history was set aside, this one begun
constexpr const char* kNoticeRefused = "refused";         // a file of foreign bytes was set aside
constexpr const char* kNoticeMassDelete = "mass-delete";  // many deletions by one user
constexpr const char* kNoticeMassRename = "mass-rename";  // many renames to one new ending

}  // namespace tavrix::history
