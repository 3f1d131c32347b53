// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/history/life.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <set>
#include <string_view>
#include <utility>

#include "tools/history/nodes.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/turns.hpp"
#include "vfs_common.h"

namespace tavrix::history {
namespace {

using Kind = TurnOfName::Kind;

// A name that the object had, and when: behind the first position, and before the second.
struct Stay {
  std::string name;
  Position from, to;
};

// Follows one object through its turns.
struct Trace {
  Beginning beginning = Beginning::kUnknown;
  Ending ending = Ending::kAlive;
  std::vector<Stay> stays;  // in order of time
  std::vector<Step> steps;  // the turns that belong to the object
  bool is_proven = false;   // a record tells of the object itself, not of its folders alone
};

Position just_behind(const Position& at) { return {at.time, at.id + 1}; }

class Tracer {
 public:
  explicit Tracer(sqlite3* database) : turns_(database) {}

  // The object that had the name just before the position; nothing on a failure.
  std::optional<Trace> trace(const std::string& name, const Position& at) {
    Trace trace;
    trace_back(name, at, trace);
    std::ranges::reverse(trace.stays);
    std::ranges::reverse(trace.steps);
    trace_on(name, at, trace);
    if (turns_.failed()) return std::nullopt;
    return trace;
  }
  Turns& turns() { return turns_; }

 private:
  // The first stay of the way back begins the way on, and gets its end there.
  void trace_back(std::string name, Position at, Trace& trace) {
    for (;;) {
      const auto turn = turns_.last_before(name, at);
      trace.stays.push_back({name, turn ? turn->record.at : kFirst, at});
      if (!turn) return;
      if (turn->kind == Kind::kMade && !turn->is_above) {
        trace.beginning = Beginning::kMade;
        trace.is_proven = true;
        trace.steps.push_back({Event::kMade, turn->record, name, ""});
        return;
      }
      if (!comes_along(*turn, Kind::kArrived)) return;
      std::string before = turn->path_before();
      add_rename(*turn, before, name, trace);
      at = turn->record.at;
      name = std::move(before);
    }
  }

  void trace_on(std::string name, Position at, Trace& trace) {
    for (;;) {
      const auto turn = turns_.first_from(name, at);
      trace.stays.back().to = turn ? turn->record.at : kLast;
      if (!turn) return;
      if (!comes_along(*turn, Kind::kLeft)) {
        end(*turn, name, trace);
        return;
      }
      std::string behind = turn->path_behind();
      add_rename(*turn, name, behind, trace);
      at = just_behind(turn->record.at);
      name = std::move(behind);
      trace.stays.push_back({name, turn->record.at, kLast});
    }
  }

  // The object itself is renamed, or a folder with all that is in it.
  static bool comes_along(const TurnOfName& turn, Kind kind) {
    return turn.kind == kind && (!turn.is_above || turn.record.is_folder);
  }

  static void add_rename(const TurnOfName& turn, const std::string& before,
                         const std::string& behind, Trace& trace) {
    trace.is_proven |= !turn.is_above;
    trace.steps.push_back(
        {turn.is_above ? Event::kCarried : Event::kRenamed, turn.record, before, behind});
  }

  static void end(const TurnOfName& turn, const std::string& name, Trace& trace) {
    if (turn.kind == Kind::kDeleted) {
      trace.ending = Ending::kDeleted;
      trace.is_proven |= !turn.is_above;
      trace.steps.push_back(
          {turn.is_above ? Event::kDeletedAbove : Event::kDeleted, turn.record, name, ""});
    } else if (turn.kind == Kind::kArrived && !turn.is_above) {
      trace.ending = Ending::kReplaced;
      trace.steps.push_back({Event::kReplaced, turn.record, name, ""});
    } else {
      trace.ending = Ending::kUnknown;
    }
  }

  Turns turns_;
};

// The records under a name that turn nothing: changes and reads.
class Changes {
 public:
  Changes(sqlite3* database, bool reads)
      : newest_(database, sql(kRecordColumns, reads) + " ORDER BY time DESC, id DESC LIMIT ?6"),
        count_(database, sql("count(*)", reads)) {}

  // Appends the newest ones, newest first.
  bool append(const Stay& stay, std::size_t most, std::vector<Step>& steps) {
    bind(newest_, stay);
    newest_.bind(6, static_cast<int64_t>(most));
    while (newest_.step()) {
      Record record = record_in(newest_);
      const Event event = record.operation == kReadOperation ? Event::kRead : Event::kChanged;
      steps.push_back({event, std::move(record), stay.name, ""});
    }
    const bool is_done = !newest_.failed();
    newest_.reset();
    return is_done;
  }

  std::optional<uint64_t> count(const Stay& stay) {
    bind(count_, stay);
    std::optional<uint64_t> number;
    if (count_.step()) number = static_cast<uint64_t>(count_.number(0));
    count_.reset();
    return number;
  }

 private:
  static std::string sql(std::string_view columns, bool reads) {
    return fmt::format(
        "SELECT {} FROM records INDEXED BY records_by_path WHERE path = ?1 AND time >= ?2 AND "
        "(time > ?2 OR id > ?3) AND time <= ?4 AND (time < ?4 OR id < ?5) AND op IN ({}, {}, {}{})",
        columns, static_cast<int>(VFSEVENT__OP_TYPE__OPTYPE_OPEN),
        static_cast<int>(VFSEVENT__OP_TYPE__OPTYPE_CLOSE),
        static_cast<int>(VFSEVENT__OP_TYPE__OPTYPE_CHMOD),
        reads ? fmt::format(", {}", kReadOperation) : "");
  }
  static void bind(Statement& statement, const Stay& stay) {
    statement.bind(1, std::string_view(stay.name));
    statement.bind(2, stay.from.time);
    statement.bind(3, stay.from.id);
    statement.bind(4, stay.to.time);
    statement.bind(5, stay.to.id);
  }

  Statement newest_, count_;
};

// Finds the objects that had a name, one after the other, from the last one on.
class Finder {
 public:
  Finder(sqlite3* database, const LifeQuestion& question)
      : question_(question),
        tracer_(database),
        changes_(database, question.reads),
        nodes_(database) {}

  // The next older life; nothing when there is none, and on a failure.
  std::optional<Life> next() {
    while (!is_done_) {
      const Position until = at_;
      const auto turn = tracer_.turns().last_before(question_.path, until);
      if (failed()) return std::nullopt;
      const Position from = turn ? turn->record.at : kFirst;
      is_done_ = !turn.has_value();
      at_ = from;
      if (known_.contains(from)) continue;
      const auto trace = tracer_.trace(question_.path, until);
      if (!trace) return std::nullopt;
      remember(*trace);
      auto life = life_of(*trace);
      if (failed()) return std::nullopt;
      if (life) return life;
    }
    return std::nullopt;
  }
  [[nodiscard]] bool failed() { return failed_ || tracer_.turns().failed(); }

 private:
  // An object that comes back to the name is one life, however often it does.
  void remember(const Trace& trace) {
    for (const Stay& stay : trace.stays) {
      if (stay.name == question_.path) known_.insert(stay.from);
    }
  }

  // Nothing when no record tells that there was an object at all.
  std::optional<Life> life_of(const Trace& trace) {
    Life life{.beginning = trace.beginning,
              .ending = trace.ending,
              .last_path = trace.stays.back().name,
              .steps = trace.steps};
    const std::size_t turns = life.steps.size();
    for (auto stay = trace.stays.rbegin(); stay != trace.stays.rend(); ++stay) {
      const std::size_t room = question_.most_changes - (life.steps.size() - turns);
      const std::size_t before = life.steps.size();
      if (room > 0 && !changes_.append(*stay, room, life.steps)) failed_ = true;
      const std::size_t taken = life.steps.size() - before;
      if (taken == room) life.steps_left_off += left_off(*stay, taken);
    }
    if (!trace.is_proven && life.steps.size() == turns && life.steps_left_off == 0)
      return std::nullopt;
    for (Step& step : life.steps) failed_ = !nodes_.set(step.record) || failed_;
    std::ranges::sort(life.steps, {}, [](const Step& step) { return step.record.at; });
    return life;
  }

  uint64_t left_off(const Stay& stay, std::size_t taken) {
    const auto all = changes_.count(stay);
    if (!all) failed_ = true;
    return all.value_or(taken) - taken;
  }

  const LifeQuestion& question_;
  Tracer tracer_;
  Changes changes_;
  Nodes nodes_;
  Position at_ = kLast;
  std::set<Position> known_;  // where stays under the name begin whose object was traced
  bool is_done_ = false, failed_ = false;
};

}  // namespace

std::optional<Lives> lives_of(sqlite3* database, const LifeQuestion& question) {
  Finder finder(database, question);
  Lives lives;
  const std::size_t most = question.all ? question.most_lives : 1;
  for (auto life = finder.next(); life; life = finder.next()) {
    if (lives.lives.size() == most) {
      lives.has_more = true;
      break;
    }
    lives.lives.push_back(std::move(*life));
  }
  if (finder.failed()) return std::nullopt;
  return lives;
}

}  // namespace tavrix::history
