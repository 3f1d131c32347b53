// SPDX-License-Identifier: LGPL-3.0-or-later
// Asks a history that tavrix_history_sample wrote, and prints how long answers take:
//
//   tavrix_history_questions FILE [WORD]
//
// With a word, only the questions with it.
//
// Each question is asked 50 times, of other users, folders and times each time; the median and the
// worst are printed. A page has 200 records.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "tools/history/database.hpp"
#include "tools/history/life.hpp"
#include "tools/history/search.hpp"
#include "tools/history/statement.hpp"

namespace {

using namespace tavrix::history;
using tavrix::events::PathPattern;
using Milliseconds = std::chrono::duration<double, std::milli>;

const char* wanted_word = "";
bool is_wanted(const char* name) {
  return std::string(name).find(wanted_word) != std::string::npos;
}

// The time of the processor tells the work apart from the waiting on a busy machine.
double processor_milliseconds() {
  timespec used{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
  return static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
}

class Watch {
 public:
  void start() {
    begin_ = std::chrono::steady_clock::now();
    used_ = processor_milliseconds();
  }
  void stop() {
    times_.push_back(Milliseconds(std::chrono::steady_clock::now() - begin_).count());
    work_.push_back(processor_milliseconds() - used_);
  }
  void report(const char* name, std::size_t records) {
    std::ranges::sort(times_);
    std::ranges::sort(work_);
    std::printf("%-52s %8.1f %8.1f %8.1f %8.1f %8zu\n", name, work_[work_.size() / 2], work_.back(),
                times_[times_.size() / 2], times_.back(), records / times_.size());
    std::fflush(stdout);
  }

 private:
  std::chrono::steady_clock::time_point begin_;
  double used_ = 0;
  std::vector<double> times_, work_;
};

constexpr int kTimes = 50;
constexpr uint32_t kFirstUid = 20'000;
constexpr int64_t kDay = 86400LL * 1'000'000;

std::mt19937_64 random_number(7);

struct Sample {
  int64_t begin, end;
  std::vector<Record> records;  // picked at random, for their paths, users and times
};

Sample look_at(sqlite3* database) {
  Sample sample{*number_of(database, "SELECT min(time) FROM records"),
                *number_of(database, "SELECT max(time) FROM records"),
                {}};
  const int64_t last = *number_of(database, "SELECT max(id) FROM records");
  Statement one(database, std::string("SELECT ") + kRecordColumns + " FROM records WHERE id = ?1");
  while (sample.records.size() < 1000) {
    one.bind(1, static_cast<int64_t>(random_number() % static_cast<uint64_t>(last)) + 1);
    if (one.step()) sample.records.push_back(record_in(one));
    one.reset();
  }
  return sample;
}

// The first `depth` folders of a path of the share.
std::string folder_of(const std::string& path, int depth) {
  std::size_t end = 0;
  for (int i = 0; i <= depth && end != std::string::npos; ++i) end = path.find('/', end + 1);
  return path.substr(0, end);
}

void ask(sqlite3* database, const char* name, const std::function<Search()>& next) {
  if (!is_wanted(name)) return;
  Watch watch;
  std::size_t records = 0;
  for (int i = 0; i < kTimes; ++i) {
    const Search question = next();
    watch.start();
    const auto page = search(database, question);
    watch.stop();
    if (!page) std::abort();
    records += page->records.size();
  }
  watch.report(name, records);
}

void ask_lives(sqlite3* database, const char* name, const std::function<LifeQuestion()>& next) {
  if (!is_wanted(name)) return;
  Watch watch;
  std::size_t steps = 0;
  for (int i = 0; i < kTimes; ++i) {
    const LifeQuestion question = next();
    watch.start();
    const auto lives = lives_of(database, question);
    watch.stop();
    if (!lives) std::abort();
    for (const Life& life : lives->lives) steps += life.steps.size();
  }
  watch.report(name, steps);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || argc > 3) {
    std::fputs("usage: tavrix_history_questions FILE [WORD]\n", stderr);
    return 2;
  }
  if (argc == 3) wanted_word = argv[2];
  Problem problem;
  const Database database = open_to_read(argv[1], problem);
  if (database == nullptr) {
    std::fprintf(stderr, "%s\n", problem.sentence.c_str());
    return 1;
  }
  sqlite3* raw = database.get();
  const Sample sample = look_at(raw);
  const auto any = [&]() -> const Record& { return sample.records[random_number() % 1000]; };
  const auto any_day = [&] {
    return sample.begin +
           static_cast<int64_t>(random_number() % static_cast<uint64_t>(sample.end - sample.begin));
  };
  std::printf("%-52s %17s %17s\n", "", "processor, ms", "time, ms");
  std::printf("%-52s %8s %8s %8s %8s %8s\n", "question", "median", "worst", "median", "worst",
              "records");
  const auto by = [&](auto fill) {
    return [&, fill] {
      Search search;
      fill(search.filter);
      return search;
    };
  };
  ask(raw, "everything", by([](auto&) {}));
  ask(raw, "a time", by([&](auto& filter) { filter.until = any_day(); }));
  ask(raw, "a busy user", by([&](auto& filter) { filter.uid = kFirstUid + random_number() % 3; }));
  ask(raw, "any user", by([&](auto& filter) { filter.uid = any().uid; }));
  ask(raw, "a rare user",
      by([&](auto& filter) { filter.uid = kFirstUid + 200 + random_number() % 100; }));
  for (const int depth : {2, 3, 4, 6}) {
    static const std::string kNames[] = {
        "", "", "a folder, 2 deep", "a folder, 3 deep", "a folder, 4 deep", "", "a folder, 6 deep"};
    ask(raw, kNames[depth].c_str(),
        by([&, depth](auto& filter) { filter.path.emplace(folder_of(any().path, depth)); }));
    ask(raw, (kNames[depth] + ", a user, a week").c_str(), by([&, depth](auto& filter) {
          filter.path.emplace(folder_of(any().path, depth));
          filter.uid = any().uid;
          filter.since = any_day();
          filter.until = *filter.since + 7 * kDay;
        }));
    ask(raw, (kNames[depth] + ", a user").c_str(), by([&, depth](auto& filter) {
          filter.path.emplace(folder_of(any().path, depth));
          filter.uid = any().uid;
        }));
    ask(raw, (kNames[depth] + ", deletions").c_str(), by([&, depth](auto& filter) {
          filter.path.emplace(folder_of(any().path, depth));
          filter.operations = tavrix::events::operations_of("delete");
        }));
  }
  ask(raw, "a folder that was busy long ago",
      by([](auto& filter) { filter.path.emplace("Shared/Archive"); }));
  ask(raw, "the same, a user", by([&](auto& filter) {
        filter.path.emplace("Shared/Archive");
        filter.uid = any().uid;
      }));
  ask(raw, "an object", by([&](auto& filter) { filter.path.emplace(any().path); }));
  ask(raw, "a folder that is not there",
      by([](auto& filter) { filter.path.emplace("Shared/Nothing"); }));
  ask(raw, "a pattern with a folder",
      by([&](auto& filter) { filter.path.emplace(folder_of(any().path, 3) + "/*report 1*"); }));
  ask(raw, "a text that is frequent", by([](auto& filter) { filter.path.emplace("report 7"); }));
  ask(raw, "deletions of a user", by([&](auto& filter) {
        filter.uid = any().uid;
        filter.operations = tavrix::events::operations_of("delete");
      }));
  ask(raw, "removed folders (one record in a thousand)",
      by([](auto& filter) { filter.operations = tavrix::events::operations_of("RMDIR"); }));
  ask(raw, "a text that is nowhere, with a patience of 50 ms", [] {
    Search search;
    search.filter.path.emplace("nowhere at all");
    search.patience = std::chrono::milliseconds(50);
    return search;
  });
  ask_lives(raw, "the life through 50 renames, by its first name",
            [] { return LifeQuestion{.path = "/tavrix/Shared/Life/first.txt", .reads = true}; });
  ask_lives(raw, "the life through 50 renames, by its last name", [] {
    return LifeQuestion{.path = "/tavrix/Shared/Life 50/name 49.txt", .reads = true};
  });
  ask_lives(raw, "the life of any object", [&] { return LifeQuestion{.path = any().path}; });
  ask_lives(raw, "all lives of any name",
            [&] { return LifeQuestion{.path = any().path, .all = true}; });
  return 0;
}
