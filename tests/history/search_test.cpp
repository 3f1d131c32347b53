// SPDX-License-Identifier: LGPL-3.0-or-later
// Pages of records, compared with a filter that looks at each record.

#include "tools/history/search.hpp"

#include <algorithm>
#include <random>

#include "tests/history/world.hpp"

namespace tavrix::test {
namespace {

using history::Page;
using history::Position;
using history::Record;
using history::Search;

// The question of a test, as the tool's own filter and as plain values.
struct Question {
  Search search;
  std::string folder, text, ending;
  std::optional<uint32_t> uid;
  std::vector<int> operations;
  std::optional<int64_t> since, until;
};

bool is_in_folder(const std::string& path, const std::string& folder) {
  return path == folder || path.starts_with(folder + "/");
}

bool path_is_wanted(const Question& question, const std::string& path) {
  if (!question.folder.empty()) return is_in_folder(path, question.folder);
  if (!question.ending.empty()) return path.ends_with(question.ending);
  return path.find(question.text) != std::string::npos;
}

bool is_wanted(const Question& question, const Record& record) {
  if (question.uid && record.uid != *question.uid) return false;
  if (question.since && record.at.time < *question.since) return false;
  if (question.until && record.at.time > *question.until) return false;
  if (question.operations.empty()) {
    if (record.operation == history::kReadOperation && !question.search.reads) return false;
  } else if (std::ranges::find(question.operations, record.operation) ==
             question.operations.end()) {
    return false;
  }
  return path_is_wanted(question, record.path) ||
         (!record.target.empty() && path_is_wanted(question, record.target));
}

class Searches : public HistoryWorld {
 protected:
  std::vector<int64_t> ids_of(const Page& page) {
    std::vector<int64_t> ids;
    for (const Record& record : page.records) ids.push_back(record.at.id);
    return ids;
  }
  // The ids of all pages, one after the other.
  std::vector<int64_t> all(Search search) {
    std::vector<int64_t> ids;
    for (int pages = 0; pages < 10'000; ++pages) {
      const auto page = history::search(reader_.get(), search);
      if (!page) {
        ADD_FAILURE() << sqlite3_errmsg(reader_.get());
        break;
      }
      EXPECT_LE(page->records.size(), search.limit);
      for (const Record& record : page->records) ids.push_back(record.at.id);
      if (!page->next) return ids;
      EXPECT_TRUE(page->is_cut || page->records.size() == search.limit);
      search.after = page->next;
    }
    ADD_FAILURE() << "the pages have no end";
    return ids;
  }
  static Search in(const char* path) {
    Search search;
    search.filter.path.emplace(path);
    return search;
  }
};

class SearchesOfAModel : public Searches, public testing::WithParamInterface<unsigned> {
 protected:
  void SetUp() override {
    Searches::SetUp();
    random_.seed(GetParam());
  }
  int pick(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
  std::string some_path() {
    static constexpr const char* kNames[] = {"a", "b", "a b", "a.txt", "b.doc", "%", "c\xff"};
    std::string path = "/tavrix/Shared";
    for (int i = pick(4); i >= 0; --i) path += std::string("/") + kNames[pick(7)];
    return path;
  }
  std::vector<Record> some_records(int count) {
    static constexpr int kOperations[] = {kMkdir,  kRmdir,  kOpen,   kOpen,
                                          kRename, kUnlink, kCreate, history::kReadOperation};
    std::vector<Record> records;
    for (int i = 0; i < count; ++i) {
      Record record{.at = {pick(count) * 100LL, i + 1},
                    .operation = kOperations[pick(8)],
                    .uid = static_cast<uint32_t>(1000 + pick(4)),
                    .path = some_path()};
      if (record.operation == kRename) record.target = some_path();
      records.push_back(record);
    }
    return records;
  }
  Question some_question(int count) {
    Question question;
    Search& search = question.search;
    search.limit = static_cast<std::size_t>(1 + pick(20));
    search.turn = static_cast<std::size_t>(1 + pick(40));
    search.reads = pick(2) == 0;
    const int kind = pick(5);
    if (kind < 2) {
      question.folder = some_path();
      search.filter.path.emplace(question.folder);
    } else if (kind == 2) {
      question.text = "b";
      search.filter.path.emplace("B");
    } else if (kind == 3) {
      question.ending = ".txt";
      search.filter.path.emplace("*.txt");
    }
    if (pick(2) == 0) search.filter.uid = question.uid = 1000 + pick(4);
    if (pick(3) == 0) {
      question.operations = {kUnlink, kRmdir};
      search.filter.operations = events::operations_of("delete");
      if (search.reads) question.operations.push_back(history::kReadOperation);
    }
    if (pick(3) == 0) search.filter.since = question.since = pick(count) * 100LL;
    if (pick(3) == 0) search.filter.until = question.until = pick(count) * 100LL;
    return question;
  }

  std::mt19937 random_;
};

TEST_P(SearchesOfAModel, FindWhatALookAtEachRecordFinds) {
  constexpr int kRecords = 1500;
  std::vector<Record> records = some_records(kRecords);
  write_all(records);
  std::ranges::sort(records, std::greater<>(), [](const Record& record) { return record.at; });
  std::size_t found = 0;
  for (int i = 0; i < 150; ++i) {
    const Question question = some_question(kRecords);
    std::vector<int64_t> expected;
    for (const Record& record : records) {
      if (is_wanted(question, record)) expected.push_back(record.at.id);
    }
    ASSERT_EQ(expected, all(question.search)) << "question " << i;
    found += expected.size();
  }
  EXPECT_GT(found, 1000U);
}

INSTANTIATE_TEST_SUITE_P(Of, SearchesOfAModel, testing::Range(1U, 5U));

TEST_F(Searches, GoOnWhereAPageEndedWhateverComesInBetween) {
  for (int i = 1; i <= 10; ++i) write(record(i, kOpen, "/tavrix/Shared/a"));
  Search search = in("Shared");
  search.limit = 4;
  const auto first = history::search(reader_.get(), search);
  EXPECT_EQ((std::vector<int64_t>{10, 9, 8, 7}), ids_of(*first));
  for (int i = 11; i <= 13; ++i) write(record(i, kOpen, "/tavrix/Shared/a"));
  search.after = history::position_of(history::cursor_of(*first->next));
  EXPECT_EQ((std::vector<int64_t>{6, 5, 4, 3, 2, 1}), all(search));
}

TEST_F(Searches, OfNothingEndAtOnce) {
  const auto page = history::search(reader_.get(), in("Shared"));
  ASSERT_TRUE(page.has_value());
  EXPECT_TRUE(page->records.empty());
  EXPECT_FALSE(page->next.has_value());
}

TEST_F(Searches, TakeWildcardsOfTheDatabaseAsTheyStand) {
  write_all({record(1, kOpen, "/tavrix/Shared/100%"), record(2, kOpen, "/tavrix/Shared/100x"),
             record(3, kOpen, "/tavrix/Shared/a_b"), record(4, kOpen, "/tavrix/Shared/a'b")});
  EXPECT_EQ(1U, all(in("100%")).size());
  EXPECT_EQ(1U, all(in("Shared/a_b")).size());
  EXPECT_EQ(1U, all(in("Shared/a'b")).size());
}

// Without patience nothing matches in a walk over everything.
TEST_F(Searches, EndTheirPageWithTheirPatience) {
  std::vector<Record> records;
  for (int i = 1; i <= 5000; ++i) records.push_back(record(i, kOpen, "/tavrix/Shared/a"));
  write_all(records);
  Search search = in("nothing of this");
  search.turn = 10;
  search.patience = std::chrono::milliseconds(0);
  const auto page = history::search(reader_.get(), search);
  EXPECT_TRUE(page->is_cut);
  EXPECT_TRUE(page->records.empty());
  ASSERT_TRUE(page->next.has_value());
  EXPECT_GT(page->next->time, 4000 * 1'000'000LL);
  EXPECT_TRUE(all(search).empty());  // goes on to the end all the same
}

// A folder beside it begins with the same letters.
TEST_F(Searches, OfAFolderLeaveOutItsNeighbours) {
  write_all({record(1, kOpen, "/tavrix/Shared/Team/a"), record(2, kOpen, "/tavrix/Shared/Team 2/a"),
             record(3, kOpen, "/tavrix/Shared/Team"), record(4, kOpen, "/tavrix/Shared/Team-x"),
             record(5, kRename, "/tavrix/Shared/x", "/tavrix/Shared/Team/x"),
             record(6, kRename, "/tavrix/Shared/Team/y", "/tavrix/Shared/Team/z")});
  EXPECT_EQ((std::vector<int64_t>{6, 5, 3, 1}), all(in("Shared/Team")));
}

// Each look is a step in an index: none sorts or reads the whole table.
TEST_F(Searches, NeverReadTheWholeTable) {
  std::vector<Record> records;
  for (int i = 1; i <= 20'000; ++i)
    records.push_back(record(i, kOpen, "/tavrix/Shared/" + std::to_string(i % 100) + "/a"));
  write_all(records);
  Search newest;
  Search old = in("Shared/7");
  old.filter.until = 3000 * 1'000'000LL;
  Search absent = in("Shared/none");
  for (const Search& search : {newest, old, absent}) {
    int64_t steps = 0;
    sqlite3_progress_handler(
        reader_.get(), 100, [](void* count) { return ++*static_cast<int64_t*>(count), 0; }, &steps);
    ASSERT_TRUE(history::search(reader_.get(), search).has_value());
    EXPECT_LT(steps * 100, 100'000) << "a look at each record takes more";
  }
}

// A reader holds no lock that a writer waits for, and sees whole transactions.
TEST_F(Searches, NeverKeepTheWriterWaiting) {
  write(record(1, kOpen, "/tavrix/Shared/a"));
  history::Statement open_read(reader_.get(), "SELECT id FROM records");
  ASSERT_TRUE(open_read.step());
  sqlite3_busy_timeout(writer_.get(), 0);
  write(record(2, kOpen, "/tavrix/Shared/a"));  // fails at once if it had to wait
  open_read.reset();
  EXPECT_EQ(2U, all(in("Shared")).size());
}

TEST_F(Searches, TellAFailure) {
  write(record(1, kOpen, "/tavrix/Shared/a"));
  sqlite3_progress_handler(
      reader_.get(), 1, [](void*) { return 1; }, nullptr);
  EXPECT_FALSE(history::search(reader_.get(), in("Shared")).has_value());
}

TEST(Cursors, AreReadAsTheyAreWritten) {
  const Position position{1795345200000000, 42};
  EXPECT_EQ(position, history::position_of(history::cursor_of(position)));
  for (const char* text : {"", ".", "1", "1.", ".1", "1.x", "1.2.3", "x.1", "1 .2"})
    EXPECT_FALSE(history::position_of(text).has_value()) << text;
}

}  // namespace
}  // namespace tavrix::test
