// SPDX-License-Identifier: LGPL-3.0-or-later
// Two ways lead to a page. A walk goes backwards along the times of all records, or of those of one
// user, until the page is full: it is quick when many records match. A gathering reads the index
// entries of a part of the tree and keeps the newest: it is quick when the part is small. Nobody
// knows beforehand which is the quicker one, so they take turns, and the first one to end wins.
#include "tools/history/search.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <memory>
#include <set>
#include <string>

#include "tools/history/nodes.hpp"

namespace tavrix::history {
namespace {

using events::PathPattern;
using Clock = std::chrono::steady_clock;

// The bounds of a page, and what its records must be like.
struct Task {
  events::RecordFilter filter;
  Position before = kLast;  // itself not
  int64_t since = kFirst.time;
  std::size_t wanted = 0;  // one more than the page holds, which tells whether there is a next one

  [[nodiscard]] bool takes(const Position& at, int operation, uint32_t uid) const {
    return at < before && at.time >= since && filter.takes_operation(operation) &&
           (!filter.uid || *filter.uid == uid);
  }
};

Task task_of(const Search& search) {
  Task task{.filter = search.filter, .wanted = search.limit + 1};
  if (!task.filter.operations) {
    task.filter.operations.emplace().set();
    task.filter.operations->set(kReadOperation, search.reads);
  } else if (search.reads) {
    task.filter.operations->set(kReadOperation);
  }
  if (task.filter.since) task.since = *task.filter.since;
  if (task.filter.until && *task.filter.until < kLast.time)
    task.before = {*task.filter.until + 1, kFirst.id};
  if (search.after) task.before = std::min(task.before, *search.after);
  return task;
}

enum class Turn { kGoesOn, kEnded, kFailed };

// Goes back in time over all records, or those of one user.
class Walk {
 public:
  Walk(sqlite3* database, const Task& task)
      : task_(task), at_(task.before), statement_(database, sql(task)) {}

  // Looks at so many records at most.
  Turn run(std::size_t budget) {
    statement_.bind(1, at_.time);
    statement_.bind(2, at_.id);
    statement_.bind(3, task_.since);
    statement_.bind(4, static_cast<int64_t>(budget));
    if (task_.filter.uid) statement_.bind(5, int64_t{*task_.filter.uid});
    std::size_t looked_at = 0;
    while (found_.size() < task_.wanted && statement_.step()) {
      ++looked_at;
      take();
    }
    if (statement_.failed()) return Turn::kFailed;
    statement_.reset();
    if (found_.size() >= task_.wanted) return Turn::kEnded;
    is_at_end_ = looked_at < budget;
    return is_at_end_ ? Turn::kEnded : Turn::kGoesOn;
  }

  [[nodiscard]] std::vector<Record> take_records() { return std::move(found_); }
  // Everything from here on was looked at.
  [[nodiscard]] const Position& at() const { return at_; }

 private:
  static std::string sql(const Task& task) {
    return fmt::format(
        "SELECT {} FROM records INDEXED BY {} WHERE {} time <= ?1 AND (time < ?1 OR id < ?2) "
        "AND time >= ?3 ORDER BY time DESC, id DESC LIMIT ?4",
        kRecordColumns, task.filter.uid ? "records_by_uid" : "records_by_time",
        task.filter.uid ? "uid = ?5 AND" : "");
  }
  void take() {
    at_ = {statement_.number(1), statement_.number(0)};
    const auto uid = static_cast<uint32_t>(statement_.number(4));
    if (task_.takes(at_, static_cast<int>(statement_.number(2)), uid) &&
        task_.filter.takes_path(statement_.text(5), statement_.text(6))) {
      found_.push_back(record_in(statement_));
    }
  }

  const Task& task_;
  Position at_;
  Statement statement_;
  std::vector<Record> found_;
  bool is_at_end_ = false;
};

// The bytes between which all paths of a pattern lie: from the first on, and before the second.
struct Range {
  std::string first, end;
};

// The text behind all that begin with this one.
std::string behind(std::string text) {
  while (!text.empty() && static_cast<unsigned char>(text.back()) == 0xff) text.pop_back();
  if (!text.empty()) text.back() = static_cast<char>(static_cast<unsigned char>(text.back()) + 1);
  return text;
}

std::vector<Range> ranges_of(const events::RecordFilter& filter) {
  if (!filter.path || filter.path->head().empty()) return {};
  const std::string head = filter.path->head();
  if (filter.path->kind() == PathPattern::Kind::kGlob) return {{head, behind(head)}};
  return {{head, head + '\0'}, {head + "/", behind(head + "/")}};
}

// Reads the index entries of a part of the tree, by path and by the new paths of renames.
class Gathering {
 public:
  Gathering(sqlite3* database, const Task& task)
      : database_(database),
        task_(task),
        is_exact_(task.filter.path && task.filter.path->kind() == PathPattern::Kind::kFolder) {
    for (const Range& range : ranges_of(task.filter)) {
      parts_.push_back({kByPath, range});
      parts_.push_back({kByTarget, range});
    }
  }
  [[nodiscard]] bool is_possible() const { return !parts_.empty(); }

  Turn run(std::size_t budget) {
    while (budget > 0) {
      if (entries_ == nullptr && !open_next()) return Turn::kEnded;
      for (; budget > 0 && entries_->step(); --budget) take();
      if (entries_->failed()) return Turn::kFailed;
      if (budget > 0) entries_.reset();
    }
    return Turn::kGoesOn;
  }

  // The records themselves; nothing on a failure.
  [[nodiscard]] std::optional<std::vector<Record>> records() const {
    Statement one(database_, fmt::format("SELECT {} FROM records WHERE id = ?1", kRecordColumns));
    std::vector<Record> found;
    for (auto place = newest_.rbegin(); place != newest_.rend(); ++place) {
      one.bind(1, place->id);
      // A record that was pruned since then is gone.
      if (one.step()) found.push_back(record_in(one));
      if (one.failed()) return std::nullopt;
      one.reset();
    }
    return found;
  }

 private:
  static constexpr const char* kByPath =
      "SELECT path, time, id, op, uid FROM records INDEXED BY records_by_path "
      "WHERE path >= ?1 AND path < ?2";
  static constexpr const char* kByTarget =
      "SELECT target, time, id, op, uid FROM records INDEXED BY records_by_target "
      "WHERE target >= ?1 AND target < ?2";
  struct Part {
    const char* sql;
    Range range;
  };

  bool open_next() {
    if (next_ == parts_.size()) return false;
    const Part& part = parts_[next_++];
    entries_ = std::make_unique<Statement>(database_, part.sql);
    entries_->bind(1, std::string_view(part.range.first));
    entries_->bind(2, std::string_view(part.range.end));
    return true;
  }
  void take() {
    const Position at{entries_->number(1), entries_->number(2)};
    if (newest_.size() == task_.wanted && at < *newest_.begin()) return;
    const bool is_taken = task_.takes(at, static_cast<int>(entries_->number(3)),
                                      static_cast<uint32_t>(entries_->number(4))) &&
                          (is_exact_ || task_.filter.path->matches(entries_->text(0)));
    if (!is_taken) return;
    newest_.insert(at);  // once, also when both paths match
    if (newest_.size() > task_.wanted) newest_.erase(newest_.begin());
  }

  sqlite3* database_;
  const Task& task_;
  bool is_exact_;  // every path between the bounds matches
  std::vector<Part> parts_;
  std::size_t next_ = 0;
  std::unique_ptr<Statement> entries_;
  std::set<Position> newest_;
};

Page page_of(std::vector<Record> records, std::size_t limit) {
  Page page;
  const bool has_more = records.size() > limit;
  if (has_more) records.resize(limit);
  if (has_more && !records.empty()) page.next = records.back().at;
  page.records = std::move(records);
  return page;
}

// A page of the records that the walk has found so far.
Page cut_page(Walk& walk, std::size_t limit) {
  const Position reached = walk.at();
  Page page = page_of(walk.take_records(), limit);
  if (page.next) return page;
  page.next = reached;
  page.is_cut = true;
  return page;
}

std::optional<Page> search_records(sqlite3* database, const Search& search) {
  constexpr std::size_t kEntriesForARecord = 8;  // an entry of an index costs less
  constexpr std::size_t kMostTimes = 8;          // a transaction of a twentieth of a second
  const Task task = task_of(search);
  if (search.limit == 0) return Page{};
  const auto begin = Clock::now();
  Walk walk(database, task);
  Gathering gathering(database, task);
  const std::size_t greatest = kMostTimes * search.turn;
  for (std::size_t budget = search.turn;; budget = std::min(2 * budget, greatest)) {
    if (gathering.is_possible()) {
      const Turn turn = gathering.run(kEntriesForARecord * budget);
      if (turn == Turn::kFailed) return std::nullopt;
      if (turn == Turn::kEnded) {
        auto records = gathering.records();
        if (!records) return std::nullopt;
        return page_of(std::move(*records), search.limit);
      }
    }
    const Turn turn = walk.run(budget);
    if (turn == Turn::kFailed) return std::nullopt;
    if (turn == Turn::kEnded) return page_of(walk.take_records(), search.limit);
    if (search.patience && Clock::now() - begin > *search.patience)
      return cut_page(walk, search.limit);
  }
}

}  // namespace

std::optional<Page> search(sqlite3* database, const Search& search) {
  auto page = search_records(database, search);
  if (!page) return std::nullopt;
  Nodes nodes(database);
  for (Record& record : page->records) {
    if (!nodes.set(record)) return std::nullopt;
  }
  return page;
}

}  // namespace tavrix::history
