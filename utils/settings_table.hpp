// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings: the one description of each entry of the global parameter block that operators
// know by name. The library names the entries of a new block from it; tavrixctl and the sweeper
// parse, check and explain values with it; scripts/generate.sh writes packaging/tavrix.conf and the
// lists in tavrixctl(1) and tavrix.conf(5) from it.
//
// The table is for compile time: a program that uses an entry's name does not carry the texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <limits>

#include "parameter_block.h"

namespace tavrix {

// The programs that read a setting, and the moment from which a new value counts in them.
struct Use {
  const char* readers;
  const char* counts;
};

struct Setting {
  e_tavrix_global_index index;
  const char* name;  // "SECTION:key"
  e_param_val_type type;
  int64_t least, most;  // limits of a number; a text may have TAVRIX_PARAM_STRVAL_SIZE - 1 bytes
  const char* unit;     // of a number; may be empty
  const char* shipped;  // the value where nobody gives one
  Use use;
  const char* meaning;  // a sentence or two: "config show --explain", tavrix.conf and the manual
  const char* advice;   // further sentences for tavrix.conf and the manual; may be empty
};

inline constexpr int64_t kNoLimit = std::numeric_limits<int32_t>::max();

namespace settings_table {

struct Limits {
  int64_t least, most = kNoLimit;
  const char* unit = "";
};

inline constexpr Use kServers = {"server processes", "for new connections"};
inline constexpr Use kSweeper = {"tavrix-sweeper", "when the sweeper is reloaded"};
inline constexpr Use kServersAndSweeper = {
    "server processes, tavrix-sweeper",
    "for new connections, and in the sweeper when it is reloaded"};
inline constexpr Use kBufferSize = {
    "server processes, tavrix-sweeper",
    "when the sweeper is reloaded and no connection works with another size"};
inline constexpr Use kEverybody = {"server processes, tavrix-sweeper, tavrix-loader",
                                   "for new connections, and in a service when it is reloaded"};
inline constexpr Use kMessenger = {"the messenger", "when the messenger reads it"};

constexpr Setting number(e_tavrix_global_index index, const char* name, Limits limits,
                         const char* shipped, Use use, const char* meaning,
                         const char* advice = "") {
  return {index,   name,  PARAM_VAL_TYPE_INT, limits.least, limits.most, limits.unit, shipped, use,
          meaning, advice};
}
constexpr Setting yes_or_no(e_tavrix_global_index index, const char* name, const char* shipped,
                            Use use, const char* meaning, const char* advice = "") {
  return {index, name, PARAM_VAL_TYPE_BOOLEAN, 0, 1, "", shipped, use, meaning, advice};
}
constexpr Setting text(e_tavrix_global_index index, const char* name, const char* shipped, Use use,
                       const char* meaning, const char* advice = "") {
  return {index, name, PARAM_VAL_TYPE_STRING, 0, 0, "", shipped, use, meaning, advice};
}

}  // namespace settings_table

// In the order of their indices, which is the order of "config show".
//
// PARAM_PERMISSION_MAP_PATH and PARAM_MESSENGER_LOCKFILE_PATH have no row: nothing gives them a
// value, and readers of the block take a nameless entry for one that is not in use.
inline constexpr Setting kSettings[] = {
    settings_table::number(
        PARAM_DEFAULT_USER_ID, "VFS:default user", {0, kNoLimit, "user id"}, "65534",
        settings_table::kServers,
        "The user id that owns the files and folders that clients make; 0 means the client's own.",
        "Objects that exist already keep their owner."),
    settings_table::number(PARAM_DEFAULT_GROUP_ID, "VFS:default group", {0, kNoLimit, "group id"},
                           "65534", settings_table::kServers,
                           "The group id that owns the files and folders that clients make; 0 "
                           "means the client's own."),
    settings_table::text(
        PARAM_REGEX_FILE_NAME, "VFS:exception pattern file", "/etc/tavrix/exception_patterns",
        settings_table::kServers,
        "A file of patterns, one on each line, of names of files that everybody may delete while "
        "\"check regex unlink\" is 1. An empty line matches every name.",
        "A pattern is a POSIX extended regular expression; it is compared with the last part of a "
        "path, in any case. There are no comments, 256 lines are the most, and the last line must "
        "end in a newline. Run \"tavrixctl patterns check FILE\" after each change. A server uses "
        "none of the patterns when one of them matches every name."),
    settings_table::yes_or_no(
        PARAM_DISABLE_SWEEPER_FLUSH, "SWEEPER:disable sweeper flush", "no",
        settings_table::kSweeper,
        "With yes, tavrix-sweeper flushes only when it ends, and events wait until a client goes.",
        "While the buffer is full, clients that write wait for that too."),
    settings_table::number(
        PARAM_STAGING_BUFFER_SIZE, "SWEEPER:staging buffer size", {1024, kNoLimit, "bytes"},
        "1048576", settings_table::kBufferSize,
        "Bytes of the shared buffer that all server processes write their events to. A change "
        "waits until no connection works with the old size.",
        "Keep it above 16384. The buffer itself only grows until the next boot."),
    settings_table::number(PARAM_FLUSH_PERIOD, "SWEEPER:flush period", {1, 86400, "seconds"}, "5",
                           settings_table::kSweeper,
                           "Seconds between two flushes by tavrix-sweeper.",
                           "A client whose event finds the buffer full waits for about as long."),
    settings_table::text(
        PARAM_STAGING_DIR, "SWEEPER:staging dir", TAVRIX_CONF_FOLDER "/staging",
        settings_table::kServersAndSweeper,
        "The folder of the dump files of events; it must exist, and its path may have 200 bytes at "
        "most.",
        "The synchronisation agent watches it. A longer path cuts the names of dump files."),
    settings_table::number(
        PARAM_FLUSH_FILL_THRESHOLD, "SWEEPER:flush fill threshold pct", {1, 100, "per cent"}, "80",
        settings_table::kServersAndSweeper,
        "Per cent of the staging buffer past which an event waits for a flush, and of an audit "
        "buffer at which its server process writes it out. 100 counts as 80 for events and as 50 "
        "for audits."),
    settings_table::number(
        PARAM_SOCKET_BACKLOG, "MESSENGER:socket backlog", {0, 65535, "connections"}, "16",
        settings_table::kMessenger,
        "Connections that may wait at the messenger, which is a program of the appliance's own.",
        "Only the messenger reads this."),
    settings_table::number(PARAM_SOCKET_MESSAGE_SIZE, "MESSENGER:socket message size",
                           {0, kNoLimit, "bytes"}, "4096", settings_table::kMessenger,
                           "Bytes of the messenger's longest message.",
                           "Only the messenger reads this."),
    settings_table::text(PARAM_SOCKET_PATH, "MESSENGER:socket path", "/run/tavrix/messenger.sock",
                         settings_table::kMessenger, "The messenger's socket.",
                         "Only the messenger reads this."),
    settings_table::number(
        PARAM_CHECK_REGEX_UNLINK, "VFS:check regex unlink", {0, 1}, "1", settings_table::kServers,
        "With 1, a file that matches a pattern may be deleted without the right to write it. With "
        "0, nobody reads the patterns."),
    settings_table::number(
        PARAM_DEBUG_LEVEL, "VFS:debug level", {-1, 10}, "0", settings_table::kEverybody,
        "How much the library writes to the system log: -1 nothing, not even errors; 0 errors, and "
        "a line for each connection, change and deletion; 10 everything.",
        "The levels between show more and more of how a verdict is reached."),
    settings_table::yes_or_no(
        PARAM_ENABLE_FORBIDDEN_RMDIR, "VFS:enable forbidden rmdir", "no", settings_table::kServers,
        "Chooses what the removal of a folder logs at debug levels 1 and 10; it allows nobody "
        "anything."),
    settings_table::text(PARAM_AUDITING_DIR, "SWEEPER:auditing dir", TAVRIX_CONF_FOLDER "/auditing",
                         settings_table::kServers,
                         "The folder of the dump files of audits; it must exist, and its path may "
                         "have 200 bytes at most.",
                         "Audits record who read what, on shares with \"tavrix:audit = yes\"."),
    settings_table::number(
        PARAM_AUDITING_BUFFER_SIZE, "SWEEPER:auditing buffer size", {1024, kNoLimit, "bytes"},
        "65536", settings_table::kServers,
        "Bytes of a server process's audit buffer, which is made when its client connects."),
    settings_table::number(
        PARAM_AUDITING_FLUSH_INTERVAL, "SWEEPER:auditing flush interval", {0, 86400, "seconds"},
        "60", settings_table::kServers,
        "Seconds after which the next audit record writes the earlier ones out.",
        "The end of the client writes them out too; nothing does while the client is idle."),
};

inline constexpr std::size_t kSettingCount = std::size(kSettings);

namespace settings_table {

constexpr bool is_in_order() {
  for (std::size_t i = 1; i < kSettingCount; ++i) {
    if (kSettings[i - 1].index >= kSettings[i].index) return false;
  }
  return kSettings[kSettingCount - 1].index < PARAM_MAX_INDEX;
}
static_assert(is_in_order(), "one row for an index, in their order");
static_assert(kSettingCount == PARAM_MAX_INDEX - 2, "a row for every index but the nameless two");

}  // namespace settings_table
}  // namespace tavrix
