// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/retention.hpp"

#include <algorithm>
#include <initializer_list>
#include <optional>
#include <string>

#include "tools/history/database.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::historian {
namespace {

using history::number_of;
using history::Statement;

constexpr int64_t kDay = int64_t{86400} * 1'000'000;
constexpr int64_t kMegabyte = 1 << 20;
constexpr int64_t kRecords = 2000;   // of one transaction
constexpr int64_t kFreePages = 256;  // stay for the next records
constexpr int64_t kPages = 2000;     // given back in one transaction

// Runs the statement; the number of rows that it changed, or nothing on a failure.
std::optional<int64_t> change(sqlite3* database, std::string_view sql,
                              std::initializer_list<int64_t> values) {
  Statement statement(database, sql);
  int place = 0;
  for (const int64_t value : values) statement.bind(++place, value);
  if (!statement.run()) return std::nullopt;
  return sqlite3_changes64(database);
}

// The number in the first row; `otherwise` without one. Nothing on a failure.
std::optional<int64_t> ask(sqlite3* database, std::string_view sql, int64_t value,
                           int64_t otherwise) {
  Statement statement(database, sql);
  statement.bind(1, value);
  const bool is_found = statement.step() && !statement.is_null(0);
  if (statement.failed()) return std::nullopt;
  return is_found ? statement.number(0) : otherwise;
}

bool note_pruned(sqlite3* database, int64_t before) {
  return change(database,
                "INSERT INTO meta VALUES ('pruned', ?1) "
                "ON CONFLICT (key) DO UPDATE SET value = max(value, ?1)",
                {before})
      .has_value();
}

// A record goes by its time and by the time when it was taken: one that came from a clock that was
// behind is old only by the first.
std::optional<int64_t> remove_older(sqlite3* database, int64_t limit) {
  const auto last =
      ask(database, "SELECT id FROM dumps WHERE taken < ? ORDER BY taken DESC, id DESC LIMIT 1",
          limit, 0);
  if (!last || *last == 0) return last;
  const auto records = change(database,
                              "DELETE FROM records WHERE id IN (SELECT id FROM records WHERE time "
                              "< ? AND dump <= ? ORDER BY time LIMIT ?)",
                              {limit, *last, kRecords});
  if (!records || (*records > 0 && !note_pruned(database, limit))) return std::nullopt;
  if (*records > 0) return records;
  // Their records are gone now. Without its row a dump would be taken again, so it comes last.
  const auto dumps = change(database,
                            "DELETE FROM dumps WHERE id IN (SELECT id FROM dumps WHERE taken < ?1 "
                            "AND newest < ?1 LIMIT ?2)",
                            {limit, kRecords});
  const auto notices = change(database, "DELETE FROM notices WHERE time < ?", {limit});
  if (!dumps || !notices) return std::nullopt;
  return *dumps + *notices;
}

std::optional<int64_t> remove_oldest(sqlite3* database) {
  const auto newest =
      ask(database, "SELECT max(time) FROM (SELECT time FROM records ORDER BY time LIMIT ?)",
          kRecords, 0);
  if (!newest) return std::nullopt;
  const auto records =
      change(database,
             "DELETE FROM records WHERE id IN (SELECT id FROM records ORDER BY time, id LIMIT ?)",
             {kRecords});
  if (!records || (*records > 0 && !note_pruned(database, *newest))) return std::nullopt;
  const auto dumps = change(database,
                            "DELETE FROM dumps WHERE newest < ? AND id IN (SELECT id FROM dumps "
                            "ORDER BY id LIMIT ?)",
                            {*newest, kRecords});
  if (!dumps) return std::nullopt;
  return *records;
}

bool is_too_large(sqlite3* database, const Limits& limits) {
  return limits.megabytes > 0 && used_bytes(database) > limits.megabytes * kMegabyte;
}

// Gives free pages back to the disk; their number, or nothing on a failure.
std::optional<int64_t> shrink(sqlite3* database) {
  const auto free = number_of(database, "PRAGMA freelist_count");
  if (!free) return std::nullopt;
  const int64_t count = std::min(*free - kFreePages, kPages);
  if (count <= 0) return 0;
  const std::string sql = "PRAGMA incremental_vacuum(" + std::to_string(count) + ")";
  if (!history::execute(database, sql.c_str())) return std::nullopt;
  return count;
}

}  // namespace

void TrustedClock::look(int64_t now, Steady steady, int64_t known) {
  using std::chrono::microseconds;
  int64_t expected = known > 0 ? known : now;
  if (is_started_) {
    expected = last_ + std::chrono::duration_cast<microseconds>(steady - last_steady_).count();
  }
  if (now > expected + kDay) {
    is_trusted_ = false;
    trusted_from_ = steady + std::chrono::hours(24);
  } else if (!is_trusted_ && steady >= trusted_from_) {
    is_trusted_ = true;
  }
  is_started_ = true;
  last_ = now;
  last_steady_ = steady;
}

Pruned prune(sqlite3* database, const Limits& limits, int64_t now, bool is_time_trusted) {
  std::optional<int64_t> removed = 0;
  {
    history::Transaction transaction(database);
    if (!transaction.begun()) return Pruned::kFailed;
    if (limits.days > 0 && is_time_trusted)
      removed = remove_older(database, now - limits.days * kDay);
    if (removed == 0 && is_too_large(database, limits)) removed = remove_oldest(database);
    if (!removed || !transaction.commit()) return Pruned::kFailed;
  }
  const auto pages = shrink(database);
  if (!pages) return Pruned::kFailed;
  return *removed > 0 || *pages > 0 ? Pruned::kSome : Pruned::kAll;
}

int64_t used_bytes(sqlite3* database) {
  const int64_t pages = number_of(database, "PRAGMA page_count").value_or(0);
  const int64_t free = number_of(database, "PRAGMA freelist_count").value_or(0);
  return (pages - free) * number_of(database, "PRAGMA page_size").value_or(0);
}

}  // namespace tavrix::historian
