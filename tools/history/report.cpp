// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/report.hpp"

#include <algorithm>
#include <ctime>
#include <numeric>
#include <unordered_map>
#include <utility>

#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"
#include "vfs_common.h"

namespace tavrix::history {
namespace {

constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kHour = 3600 * kSecond;
constexpr int64_t kMostByHour = 14LL * 24 * kHour;  // a longer time is shown by day
constexpr std::size_t kMostNotices = 100;

// The beginning of the hour or the local day, and of the next one.
int64_t step_of(int64_t time, bool by_day, int steps_on = 0) {
  if (!by_day) return (time / kHour + steps_on) * kHour;
  const auto seconds = static_cast<time_t>(time / kSecond);
  tm parts{};
  localtime_r(&seconds, &parts);
  parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
  parts.tm_mday += steps_on;
  parts.tm_isdst = -1;
  return mktime(&parts) * kSecond;
}

std::string_view folder_of(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos || slash == 0 ? "/" : path.substr(0, slash);
}

void add(Counts& counts, Doing doing) { ++counts[static_cast<std::size_t>(doing)]; }

class Counter {
 public:
  // There are steps from `begin` on.
  Counter(Report& report, int64_t begin) : report_(report) {
    for (int64_t step = step_of(begin, report.by_day); step <= report.until;
         step = step_of(step, report.by_day, 1)) {
      report.steps.try_emplace(step);
    }
  }

  void take(int64_t time, int operation, uint32_t uid, std::string_view path) {
    const Doing doing = doing_of(operation);
    add(report_.counts, doing);
    // The records come in order of time, so the step seldom changes.
    if (step_ == report_.steps.end() || time < step_->first || time >= step_end_) go_to(time);
    add(step_->second, doing);
    add(users_[uid], doing);
    add(folders_[std::string(folder_of(path))], doing);
  }

  void finish(std::size_t most) {
    for (const auto& [uid, counts] : users_) report_.users.push_back({uid, counts});
    for (const auto& [path, counts] : folders_) report_.folders.push_back({path, counts});
    keep_most_active(report_.users, most, &Report::User::uid);
    keep_most_active(report_.folders, most, &Report::Folder::path);
  }

 private:
  void go_to(int64_t time) {
    step_ = report_.steps.try_emplace(step_of(time, report_.by_day)).first;
    step_end_ = step_of(time, report_.by_day, 1);
  }
  // Those with as many records are in the order of their names, so that a report can be repeated.
  template <typename Item, typename Name>
  static void keep_most_active(std::vector<Item>& items, std::size_t most, Name name) {
    std::ranges::sort(items, [name](const Item& a, const Item& b) {
      const uint64_t of_a = sum_of(a.counts), of_b = sum_of(b.counts);
      return of_a != of_b ? of_a > of_b : a.*name < b.*name;
    });
    if (items.size() > most) items.resize(most);
  }

  Report& report_;
  std::map<int64_t, Counts>::iterator step_ = report_.steps.end();
  int64_t step_end_ = 0;
  std::unordered_map<uint32_t, Counts> users_;
  std::unordered_map<std::string, Counts> folders_;
};

// Goes through the records in parts, so that no read transaction lasts.
bool count_records(sqlite3* database, const ReportQuestion& question, Counter& counter) {
  constexpr int64_t kPart = 50'000;
  Statement part(database,
                 "SELECT time, id, op, uid, path FROM records INDEXED BY records_by_time WHERE "
                 "time >= ?1 AND (time > ?1 OR id > ?2) AND time <= ?3 ORDER BY time, id LIMIT ?4");
  int64_t time = question.since, id = 0;
  const auto total = static_cast<uint64_t>(question.until - question.since + 1);
  for (int64_t looked_at = kPart; looked_at == kPart;) {
    part.bind(1, time);
    part.bind(2, id);
    part.bind(3, question.until);
    part.bind(4, kPart);
    for (looked_at = 0; part.step(); ++looked_at) {
      time = part.number(0);
      id = part.number(1);
      counter.take(time, static_cast<int>(part.number(2)), static_cast<uint32_t>(part.number(3)),
                   part.text(4));
    }
    if (part.failed()) return false;
    part.reset();
    if (question.progress) question.progress(static_cast<uint64_t>(time - question.since), total);
  }
  return true;
}

bool read_notices(sqlite3* database, Report& report) {
  Statement row(database,
                "SELECT time, kind, uid, count, text FROM notices WHERE time >= ?1 AND time <= ?2 "
                "ORDER BY time DESC, id DESC LIMIT ?3");
  row.bind(1, report.since);
  row.bind(2, report.until);
  row.bind(3, static_cast<int64_t>(kMostNotices));
  while (row.step()) {
    Notice notice;
    notice.time = row.number(0);
    notice.kind = row.text(1);
    notice.text = row.text(4);
    if (!row.is_null(2)) notice.uid = static_cast<uint32_t>(row.number(2));
    if (!row.is_null(3)) notice.count = row.number(3);
    report.notices.push_back(std::move(notice));
  }
  return !row.failed();
}

}  // namespace

Doing doing_of(int operation) {
  switch (operation) {
    case VFSEVENT__OP_TYPE__OPTYPE_MKDIR:
    case VFSEVENT__OP_TYPE__OPTYPE_CREATE:
      return Doing::kCreated;
    case VFSEVENT__OP_TYPE__OPTYPE_OPEN:  // the close of a changed file is recorded as this
    case VFSEVENT__OP_TYPE__OPTYPE_CLOSE:
    case VFSEVENT__OP_TYPE__OPTYPE_CHMOD:
      return Doing::kChanged;
    case VFSEVENT__OP_TYPE__OPTYPE_RENAME:
      return Doing::kRenamed;
    case VFSEVENT__OP_TYPE__OPTYPE_RMDIR:
    case VFSEVENT__OP_TYPE__OPTYPE_UNLINK:
      return Doing::kDeleted;
    case kReadOperation:
      return Doing::kRead;
    default:
      return Doing::kOther;
  }
}

const char* word_of(Doing doing) {
  static constexpr const char* kWords[kDoings] = {"created", "changed", "renamed",
                                                  "deleted", "read",    "other"};
  return kWords[static_cast<std::size_t>(doing)];
}

uint64_t sum_of(const Counts& counts) {
  return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

std::optional<Report> report_on(sqlite3* database, const ReportQuestion& question) {
  Report report;
  report.since = question.since;
  report.until = question.until;
  report.by_day = question.until - question.since > kMostByHour;
  // Nothing was recorded before the first record, however long ago the time begins.
  const auto first = number_of(database, "SELECT min(time) FROM records");
  Counter counter(report, std::max(report.since, first.value_or(report.since)));
  if (!count_records(database, question, counter) || !read_notices(database, report))
    return std::nullopt;
  counter.finish(question.most);
  return report;
}

}  // namespace tavrix::history
