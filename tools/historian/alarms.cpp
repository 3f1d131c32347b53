// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/alarms.hpp"

#include <sys/stat.h>
#include <cstdint>
#include <string>

#include "eventstore.h"
#include "tools/historian/store.hpp"
#include "tools/history/database.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::historian {
namespace {

using history::Statement;

struct Alarm {
  const char* file;
  const char* key;  // in `meta`: the time of the alarm noted last, in microseconds
  const char* sentence;
};
constexpr Alarm kAlarms[] = {
    {TAVRIX_SYNC_OFF_PATH, "alarm sync-off",
     "events were lost before this time: the sync-off alarm was raised"},
    {TAVRIX_RESCAN_PATH, "alarm rescan",
     "events may have been lost before this time: the rescan alarm was raised"},
};

bool note(sqlite3* database, const Alarm& alarm) {
  struct stat info {};
  if (stat(alarm.file, &info) != 0) return true;
  const int64_t raised = info.st_mtim.tv_sec * 1'000'000 + info.st_mtim.tv_nsec / 1000;
  Statement known(database, "SELECT value FROM meta WHERE key = ?");
  known.bind(1, std::string_view(alarm.key));
  if (known.step() && known.number(0) == raised) return true;
  if (known.failed()) return false;
  known.reset();
  history::Transaction transaction(database);
  Statement remember(database, "INSERT OR REPLACE INTO meta VALUES (?, ?)");
  remember.bind(1, std::string_view(alarm.key));
  remember.bind(2, raised);
  return transaction.begun() && add_notice(database, history::kNoticeGap, raised, alarm.sentence) &&
         remember.run() && transaction.commit();
}

}  // namespace

bool note_alarms(sqlite3* database) {
  for (const Alarm& alarm : kAlarms) {
    if (!note(database, alarm)) return false;
  }
  return true;
}

}  // namespace tavrix::historian
