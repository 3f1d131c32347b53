// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/mass_changes.hpp"

#include <fmt/format.h>
#include <algorithm>

#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/shown.hpp"

namespace tavrix::historian {
namespace {

constexpr int64_t kMicros = 1'000'000;
constexpr std::size_t kLookForOld = 10'000;  // changes between two looks for waves that are over

bool is_deletion(const Row& row) {
  return row.op == VFSEVENT__OP_TYPE__OPTYPE_UNLINK || row.op == VFSEVENT__OP_TYPE__OPTYPE_RMDIR;
}

// A file whose name ends otherwise than before.
bool has_new_ending(const Row& row) {
  if (row.op != VFSEVENT__OP_TYPE__OPTYPE_RENAME || row.is_folder || !row.target) return false;
  const auto ending = ending_of(*row.target);
  return !ending.empty() && ending != ending_of(row.path);
}

}  // namespace

std::string_view ending_of(std::string_view path) {
  const std::string_view name = path.substr(path.rfind('/') + 1);
  const auto dot = name.rfind('.');
  return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

std::string MassChange::sentence() const {
  const std::string who = user.empty() ? fmt::format("the user with the id {}", uid)
                                       : fmt::format("{} (user id {})", text::shown(user), uid);
  const std::string when = text::counted(seconds, "second");
  if (is_rename) {
    return fmt::format("{} gave {} the new ending \".{}\" within {}", who,
                       text::counted(count, "file"), text::shown(ending), when);
  }
  return fmt::format("{} deleted {} files and folders within {}", who, count, when);
}

void MassChanges::add(const Row& row, std::vector<MassChange>& found) {
  const bool is_rename = has_new_ending(row);
  if (!is_rename && !is_deletion(row)) return;
  const Threshold& threshold = is_rename ? renames_ : deletions_;
  if (threshold.count <= 0) return;
  const std::string ending(is_rename ? ending_of(*row.target) : std::string_view());
  Wave& wave = waves_[{is_rename, row.uid, ending}];
  const int64_t window = threshold.seconds * kMicros;
  // A clock that went back begins the window anew.
  if (!wave.times.empty() && row.time < wave.times.back() - window) wave.times.clear();
  wave.times.push_back(row.time);
  while (wave.times.front() <= row.time - window) wave.times.pop_front();
  const auto count = static_cast<int64_t>(wave.times.size());
  if (count == 1) wave.is_reported = false;
  if (count <= threshold.count || wave.is_reported) return;
  wave.is_reported = true;
  found.push_back({is_rename, row.uid, std::string(row.user.value_or("")), ending, row.time, count,
                   threshold.seconds});
}

std::vector<MassChange> MassChanges::look(const std::vector<Row>& rows) {
  std::vector<MassChange> found;
  for (const Row& row : rows) add(row, found);
  since_forgotten_ += rows.size();
  if (since_forgotten_ >= kLookForOld && !rows.empty()) forget_old(rows.back().time);
  return found;
}

void MassChanges::forget_old(int64_t now) {
  since_forgotten_ = 0;
  const int64_t window = std::max(deletions_.seconds, renames_.seconds) * kMicros;
  std::erase_if(waves_, [now, window](const auto& entry) {
    return entry.second.times.back() <= now - window;
  });
}

bool MassChanges::resume(sqlite3* database) {
  waves_.clear();
  const auto newest = history::number_of(database, "SELECT max(time) FROM records");
  if (!newest) return true;
  const int64_t since = *newest - std::max(deletions_.seconds, renames_.seconds) * kMicros;
  history::Statement rows(database,
                          "SELECT time, op, folder, uid, path, target FROM records WHERE time > ? "
                          "ORDER BY id");
  rows.bind(1, since);
  std::vector<MassChange> reported_already;
  while (rows.step()) {
    Row row;
    row.time = rows.number(0);
    row.op = static_cast<int>(rows.number(1));
    row.is_folder = rows.number(2) != 0;
    row.uid = static_cast<uint32_t>(rows.number(3));
    row.path = rows.text(4);
    if (!rows.is_null(5)) row.target = rows.text(5);
    add(row, reported_already);
  }
  return !rows.failed();
}

}  // namespace tavrix::historian
