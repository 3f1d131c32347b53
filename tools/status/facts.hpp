// SPDX-License-Identifier: LGPL-3.0-or-later
// The state of the appliance, topic by topic, as it was found: no judgement (judge.hpp).
//
// An optional value is empty when it could not be read; `unread` says why. Times are seconds since
// 1970, sizes are bytes.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/status/machine.hpp"

namespace tavrix::status {

struct Settings {
  bool exists = false;     // there is a block of the right size
  uint64_t bytes = 0;      // of the block that is there
  bool is_loaded = false;  // somebody has filled it
  std::string file;
  bool has_file = false;
  std::optional<int64_t> read_at;                 // when the last file without a mistake was loaded
  std::vector<std::string> mistakes;              // in the file
  std::vector<std::string> wrong_service_values;  // in the file: the shipped ones hold
  std::vector<std::string> differing;   // settings with another value in the block than in the file
  std::vector<std::string> complaints;  // about the pattern file
  // Values for the other topics.
  int32_t buffer_bytes = 0, flush_period = 0, threshold_pct = 0;
  bool is_flush_disabled = false;
  std::string staging_dir, auditing_dir;
};

// The header of an image.
struct Header {
  std::string name, version;
  uint32_t generation = 0;
  int64_t timestamp = 0;
  uint32_t folders = 0, entries = 0;
};

// Maps that are on their way, in the loader's folder.
struct Inbox {
  std::string folder;
  bool is_readable = false;
  std::optional<int64_t> waits_since;  // a pair that the loader has not taken
  std::optional<int64_t> in_work_since;
  uint64_t refused = 0;
  std::optional<int64_t> last_refused;
  std::string last_reason;  // its first line
};

// The maps that are kept, and one that waits for approval.
struct KeptMaps {
  bool is_readable = false;
  uint64_t count = 0, bytes = 0;  // of images; the current one shares its room with the local copy
  std::optional<int64_t> oldest;  // came into force
  std::optional<int64_t> held_since;  // a map waits
  std::string held_reason;
};

struct Map {
  bool has_set = false;  // the semaphores
  std::optional<int> current, initialized;
  Segment tables[2];
  bool is_import_running = false;
  std::optional<Header> header;  // of the current table
  std::optional<int> marked;     // the table that was published last, if it is still there
  bool has_mark = false;         // whether it is known is in `is_mark_readable`
  bool is_mark_readable = false;
  bool has_copy = false;
  uint64_t copy_bytes = 0;
  std::optional<bool> is_copy_equal;  // to the current table
  Inbox inbox;
  KeptMaps kept;

  // The current table; null when there is none.
  [[nodiscard]] const Segment* table() const {
    if (!current || (*current != 0 && *current != 1) || !tables[*current].exists()) return nullptr;
    return &tables[*current];
  }
};

struct Groups {
  bool exists = false;
  std::optional<int64_t> written;
  std::optional<uint64_t> users, reserved;  // of a sound file
  uint64_t errors = 0;
  enum class Checksum { kUnknown, kMatches, kDiffers, kMissing } checksum = Checksum::kUnknown;
};

struct Service {
  std::string name;  // "sweeper"
  std::vector<Process> processes;
  std::optional<int64_t> since;      // the start of the first process
  std::optional<int64_t> last_work;  // its period, or its import
  std::string last_words;            // of the import
};

struct Buffer {
  bool exists = false;
  bool is_sound = false;  // its head is
  uint64_t bytes = 0, used = 0, threshold = 0;
  uint64_t records = 0;
  std::optional<int64_t> oldest;  // the time of the first record
  bool has_semaphore = false;
  bool is_free = false;
  pid_t holder = 0;  // that used it last
  bool is_holder_dead = false;
  int waiting = 0;
};

// The dump files in a folder.
struct Dumps {
  std::string folder;
  bool is_readable = false;
  uint64_t count = 0, bytes = 0;
  std::optional<int64_t> oldest;
  uint64_t set_aside = 0;  // files that no flush wrote
};

// The dump files of all nodes of a cluster.
struct NodeDumps {
  std::string node;
  Dumps events, audits;
};
struct Cluster {
  std::string node;  // this one
  std::vector<NodeDumps> nodes;
};

// The history, where the historian is installed.
struct History {
  std::string folder;  // of the dump files that wait for the historian
  bool is_readable = false;
  bool is_on = false;  // the folder is there
  uint64_t waiting = 0, bytes = 0;
  std::optional<int64_t> oldest;  // the time since which one waits
  uint64_t refused = 0;           // files that no flush wrote
  std::string database;
  std::optional<uint64_t> database_bytes;
};

struct Alarm {
  std::string name, path;
  std::optional<bool> is_raised;
  std::optional<int64_t> since;
  std::string reason;
};

struct Disk {
  std::string folder;
  std::string purpose;  // "events", "audits", "local copy of the map", "maps on their way"
  uint64_t bytes = 0, free = 0;
  uint64_t files = 0, files_free = 0;  // 0 files: the file system does not count them
  uint64_t needed = 0;                 // bytes for the next dump file or the next map
};

// An earlier map that somebody has still attached.
struct Pinned {
  Segment segment;
  std::optional<std::vector<Process>> holders;
};

struct Connections {
  std::optional<int> count;    // server processes
  std::vector<Pinned> pinned;  // the oldest first
};

struct HugePages {
  std::string setting;  // for shared memory: "never", "advise", ...; empty when the kernel has none
  std::optional<uint64_t> used;  // bytes of all shared memory on the machine
};

struct Versions {
  std::string tools, library;
  std::string module_file;
  bool has_module = false;
  std::string module_samba;  // the series of Samba that the module is built for
  std::string samba;         // the installed version; empty: none
};

struct Unread {
  std::string topic, what, why;
};

struct Facts {
  int64_t now = 0;
  Settings settings;
  Map map;
  Groups groups;
  std::vector<Service> services;
  Buffer buffer;
  Dumps events, audits;  // of this node
  std::optional<Cluster> cluster;
  std::optional<History> history;
  std::vector<Alarm> alarms;
  std::vector<Disk> disks;
  Connections connections;
  HugePages huge_pages;
  Versions versions;
  std::vector<Unread> unread;
};

// The files that the operator may have elsewhere.
struct Places {
  std::string settings = "/etc/tavrix/tavrix.conf";
  std::string inbox = "/var/lib/tavrix/maps";
};

}  // namespace tavrix::status
