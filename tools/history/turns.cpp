// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/turns.hpp"

#include <fmt/format.h>

#include "vfs_common.h"

namespace tavrix::history {
namespace {

constexpr int kMakeFolder = VFSEVENT__OP_TYPE__OPTYPE_MKDIR;
constexpr int kRemoveFolder = VFSEVENT__OP_TYPE__OPTYPE_RMDIR;
constexpr int kRename = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
constexpr int kRemoveFile = VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
constexpr int kMakeFile = VFSEVENT__OP_TYPE__OPTYPE_CREATE;

// ?1 is the name, (?2, ?3) the position, and no record beyond (?4, ?5) is wanted. A rename of a
// name to itself turns nothing.
std::string sql(std::string_view column, bool is_backwards) {
  const std::string order = is_backwards ? "DESC" : "ASC";
  const std::string bounds =
      is_backwards
          ? "time <= ?2 AND (time < ?2 OR id < ?3) AND time >= ?4 AND (time > ?4 OR id >= ?5)"
          : "time >= ?2 AND (time > ?2 OR id >= ?3) AND time <= ?4 AND (time < ?4 OR id <= ?5)";
  return fmt::format(
      "SELECT {0} FROM records INDEXED BY records_by_{1} WHERE {1} = ?1 AND {2} AND op IN ({3}, "
      "{4}, "
      "{5}, {6}, {7}) AND path IS NOT target ORDER BY time {8}, id {8} LIMIT 1",
      kRecordColumns, column, bounds, kMakeFolder, kRemoveFolder, kRename, kRemoveFile, kMakeFile,
      order);
}

TurnOfName::Kind kind_of(const Record& record, bool is_by_target) {
  if (is_by_target) return TurnOfName::Kind::kArrived;
  if (record.operation == kRename) return TurnOfName::Kind::kLeft;
  const bool is_made = record.operation == kMakeFolder || record.operation == kMakeFile;
  return is_made ? TurnOfName::Kind::kMade : TurnOfName::Kind::kDeleted;
}

}  // namespace

Turns::Turns(sqlite3* database)
    : path_before_(database, sql("path", true)),
      target_before_(database, sql("target", true)),
      path_from_(database, sql("path", false)),
      target_from_(database, sql("target", false)) {}

std::optional<Record> Turns::one(Statement& statement, std::string_view path, const Position& at,
                                 const Position& limit) {
  statement.bind(1, path);
  statement.bind(2, at.time);
  statement.bind(3, at.id);
  statement.bind(4, limit.time);
  statement.bind(5, limit.id);
  std::optional<Record> found;
  if (statement.step()) found = record_in(statement);
  if (statement.failed()) failed_ = true;
  statement.reset();
  return found;
}

std::optional<TurnOfName> Turns::nearest(const std::string& name, Position at, bool is_backwards) {
  std::optional<TurnOfName> best;
  Position limit = is_backwards ? kFirst : kLast;
  for (std::size_t end = name.size(); end != 0 && end != std::string::npos;
       end = name.rfind('/', end - 1)) {
    const std::string_view folder = std::string_view(name).substr(0, end);
    for (const bool is_by_target : {false, true}) {
      Statement& statement = is_backwards ? (is_by_target ? target_before_ : path_before_)
                                          : (is_by_target ? target_from_ : path_from_);
      auto record = one(statement, folder, at, limit);
      if (!record) continue;
      const bool is_nearer =
          !best || (is_backwards ? record->at > best->record.at : record->at < best->record.at);
      if (!is_nearer) continue;
      limit = record->at;
      best = TurnOfName{kind_of(*record, is_by_target), end != name.size(), std::move(*record),
                        name.substr(end)};
    }
  }
  return best;
}

std::optional<TurnOfName> Turns::last_before(const std::string& name, const Position& at) {
  return nearest(name, at, true);
}

std::optional<TurnOfName> Turns::first_from(const std::string& name, const Position& at) {
  return nearest(name, at, false);
}

}  // namespace tavrix::history
