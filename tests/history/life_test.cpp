// SPDX-License-Identifier: LGPL-3.0-or-later
// The lives of objects, by cases and by a model of a tree.

#include "tools/history/life.hpp"

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "tests/history/world.hpp"

namespace tavrix::test {
namespace {

using history::Beginning;
using history::Ending;
using history::Event;
using history::Life;
using history::LifeQuestion;
using history::Record;

const char* name_of(Event event) {
  static constexpr const char* kNames[] = {"made",    "changed",  "read",    "renamed",
                                           "carried", "replaced", "deleted", "deleted above"};
  return kNames[static_cast<int>(event)];
}

std::string text_of(const Life& life) {
  std::string text = life.beginning == Beginning::kMade ? "" : "unknown; ";
  for (const auto& step : life.steps) {
    text += std::string(name_of(step.event)) + " " + step.path;
    if (!step.new_path.empty()) text += " -> " + step.new_path;
    text += "; ";
  }
  static constexpr const char* kEndings[] = {"alive", "deleted", "replaced", "unknown"};
  return text + kEndings[static_cast<int>(life.ending)] + " as " + life.last_path;
}

class Lives : public HistoryWorld {
 protected:
  // The lives as texts, newest first.
  std::vector<std::string> lives(LifeQuestion question) {
    const auto found = history::lives_of(reader_.get(), question);
    if (!found) ADD_FAILURE() << sqlite3_errmsg(reader_.get());
    std::vector<std::string> texts;
    for (const Life& life : found->lives) texts.push_back(text_of(life));
    has_more_ = found->has_more;
    return texts;
  }
  std::vector<std::string> all(const std::string& path) {
    return lives({.path = path, .all = true});
  }
  std::string last(const std::string& path) {
    const auto found = lives({.path = path});
    return found.empty() ? "none" : found.front();
  }
  bool has_more_ = false;
};

TEST_F(Lives, AreFollowedFromAnyName) {
  write_all({record(1, kMkdir, "/S"), record(2, kCreate, "/S/a"), record(3, kOpen, "/S/a"),
             record(4, kRename, "/S", "/T", true), record(5, kRename, "/T/a", "/T/b"),
             record(6, kOpen, "/T/b"), record(7, kUnlink, "/T/b")});
  const std::string life =
      "made /S/a; changed /S/a; carried /S/a -> /T/a; renamed /T/a -> /T/b; changed /T/b; "
      "deleted /T/b; deleted as /T/b";
  for (const char* name : {"/S/a", "/T/a", "/T/b"}) EXPECT_EQ(life, last(name)) << name;
  EXPECT_EQ("none", last("/S/b"));
  EXPECT_EQ("made /S; renamed /S -> /T; alive as /T", last("/T"));
}

TEST_F(Lives, OfSeveralObjectsWithANameComeNewestFirst) {
  write_all({record(1, kCreate, "/a"), record(2, kUnlink, "/a"), record(3, kCreate, "/a"),
             record(4, kRename, "/a", "/b"), record(5, kCreate, "/a")});
  EXPECT_EQ(
      (std::vector<std::string>{"made /a; alive as /a", "made /a; renamed /a -> /b; alive as /b",
                                "made /a; deleted /a; deleted as /a"}),
      all("/a"));
  EXPECT_EQ("made /a; alive as /a", last("/a"));
  EXPECT_TRUE(has_more_);
  EXPECT_EQ("made /a; renamed /a -> /b; alive as /b", last("/b"));
  EXPECT_FALSE(has_more_);
}

TEST_F(Lives, OfAnObjectThatComesBackToANameAreOne) {
  write_all({record(1, kCreate, "/a"), record(2, kRename, "/a", "/b"),
             record(3, kRename, "/b", "/a"), record(4, kOpen, "/a")});
  EXPECT_EQ((std::vector<std::string>{
                "made /a; renamed /a -> /b; renamed /b -> /a; changed /a; alive as /a"}),
            all("/a"));
}

TEST_F(Lives, EndWhenAnotherObjectTakesTheName) {
  write_all(
      {record(1, kCreate, "/a"), record(2, kCreate, "/~tmp"), record(3, kRename, "/~tmp", "/a")});
  EXPECT_EQ((std::vector<std::string>{"made /~tmp; renamed /~tmp -> /a; alive as /a",
                                      "made /a; replaced /a; replaced as /a"}),
            all("/a"));
}

TEST_F(Lives, EndWithTheFolderAbove) {
  write_all({record(1, kMkdir, "/S"), record(2, kCreate, "/S/a"), record(3, kRmdir, "/S"),
             record(4, kMkdir, "/S")});
  EXPECT_EQ("made /S/a; deleted above /S/a; deleted as /S/a", last("/S/a"));
  EXPECT_EQ(1U, all("/S/a").size());
}

// The synchronisation agent leaves no records.
TEST_F(Lives, MayBeginAndEndWithoutARecord) {
  write_all({record(2, kOpen, "/a"), record(3, kCreate, "/a"), record(4, kUnlink, "/b")});
  EXPECT_EQ(
      (std::vector<std::string>{"made /a; alive as /a", "unknown; changed /a; unknown as /a"}),
      all("/a"));
  EXPECT_EQ("unknown; deleted /b; deleted as /b", last("/b"));
}

TEST_F(Lives, OfOneTimeAreInTheOrderOfTaking) {
  write_all({record(1, kCreate, "/a"), record(1, kRename, "/a", "/b"), record(1, kCreate, "/a"),
             record(1, kUnlink, "/a"), record(1, kRename, "/b", "/c")});
  EXPECT_EQ("made /a; renamed /a -> /b; renamed /b -> /c; alive as /c", last("/c"));
  EXPECT_EQ("made /a; deleted /a; deleted as /a", last("/a"));
}

TEST_F(Lives, HaveReadsOnRequest) {
  write_all({record(1, kCreate, "/a"), record(2, history::kReadOperation, "/a")});
  EXPECT_EQ("made /a; alive as /a", last("/a"));
  EXPECT_EQ((std::vector<std::string>{"made /a; read /a; alive as /a"}),
            lives({.path = "/a", .reads = true}));
}

TEST_F(Lives, LeaveOldChangesOffBeyondTheLimit) {
  std::vector<Record> records{record(1, kCreate, "/a")};
  for (int i = 2; i < 12; ++i) records.push_back(record(i, kOpen, "/a"));
  records.push_back(record(12, kRename, "/a", "/b"));
  for (int i = 13; i < 16; ++i) records.push_back(record(i, kOpen, "/b"));
  write_all(records);
  const auto found = history::lives_of(reader_.get(), {.path = "/b", .most_changes = 4});
  ASSERT_EQ(1U, found->lives.size());
  EXPECT_EQ(
      "made /a; changed /a; renamed /a -> /b; changed /b; changed /b; changed /b; alive as /b",
      text_of(found->lives[0]));
  EXPECT_EQ(11, found->lives[0].steps[1].record.at.time / 1'000'000);
  EXPECT_EQ(9U, found->lives[0].steps_left_off);
}

TEST_F(Lives, OfNamesOfAnyBytes) {
  write_all({record(1, kCreate, "/caf\xe9"), record(2, kRename, "/caf\xe9", "/caf\xc3\xa9")});
  EXPECT_EQ("made /caf\xe9; renamed /caf\xe9 -> /caf\xc3\xa9; alive as /caf\xc3\xa9",
            last("/caf\xe9"));
}

// The names of an object that goes to and fro, and of its folder, are looked at once each.
TEST_F(Lives, TakeNoSquareOfTheRenames) {
  std::vector<Record> records{record(1, kMkdir, "/x"), record(1, kCreate, "/x/a")};
  constexpr int kTimes = 4000;
  for (int i = 0; i < kTimes; ++i) {
    records.push_back(i % 2 == 0 ? record(2 + i, kRename, "/x", "/y", true)
                                 : record(2 + i, kRename, "/y", "/x", true));
  }
  write_all(records);
  int looks = 0;
  sqlite3_trace_v2(
      reader_.get(), SQLITE_TRACE_STMT,
      [](unsigned, void* count, void*, void*) { return ++*static_cast<int*>(count), 0; }, &looks);
  EXPECT_EQ(1U, all("/x/a").size());
  EXPECT_LT(looks, 20 * kTimes);
  looks = 0;
  EXPECT_EQ(0U, all("/x/b").size());
  EXPECT_LT(looks, 30 * kTimes);
}

// --- a model -------------------------------------------------------------------------------------

// A tree in memory in which every object writes its own life.
class Tree {
 public:
  explicit Tree(unsigned seed) : random_(seed) {}

  void play(int operations) {
    for (int i = 0; i < operations; ++i) play_one();
  }
  [[nodiscard]] const std::vector<Record>& records() const { return records_; }
  [[nodiscard]] std::set<std::string> names() const {
    std::set<std::string> all;
    for (const auto& object : objects_) all.insert(object->names.begin(), object->names.end());
    return all;
  }
  // The lives of a name, the object that had it last first.
  [[nodiscard]] std::vector<std::string> lives(const std::string& name) const {
    std::map<int64_t, std::string, std::greater<>> by_end;
    for (const auto& object : objects_) {
      const auto held = object->held.find(name);
      if (held == object->held.end()) continue;
      const bool has_it = object->ending == Ending::kAlive && object->path == name;
      by_end[has_it ? INT64_MAX : held->second] = text_of(*object);
    }
    std::vector<std::string> texts;
    for (const auto& [end, text] : by_end) texts.push_back(text);
    return texts;
  }

 private:
  struct Object {
    std::string path;
    bool is_folder;
    Ending ending = Ending::kAlive;
    std::string life;
    std::set<std::string> names;
    std::map<std::string, int64_t> held;  // when it left each name, by the number of the record
  };

  static std::string text_of(const Object& object) {
    static constexpr const char* kEndings[] = {"alive", "deleted", "replaced", "unknown"};
    return object.life + kEndings[static_cast<int>(object.ending)] + " as " + object.path;
  }
  int pick(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
  Object* at(const std::string& path) {
    const auto found = alive_.find(path);
    return found == alive_.end() ? nullptr : found->second;
  }
  Object* any() {
    if (alive_.empty()) return nullptr;
    return std::next(alive_.begin(), pick(static_cast<int>(alive_.size())))->second;
  }
  // A name in some folder; few names, so that they meet again.
  std::string any_name() {
    std::vector<std::string> folders{""};
    for (const auto& [path, object] : alive_) {
      if (object->is_folder && std::ranges::count(path, '/') < 5) folders.push_back(path);
    }
    static constexpr const char* kNames[] = {"a", "b", "ab", "c\xff", "d e", "%", "_"};
    return folders[static_cast<std::size_t>(pick(static_cast<int>(folders.size())))] + "/" +
           kNames[pick(7)];
  }
  static bool is_below(const std::string& path, const std::string& folder) {
    return path.starts_with(folder + "/");
  }
  std::vector<Object*> below(const std::string& folder) {
    std::vector<Object*> found;
    for (const auto& [path, object] : alive_) {
      if (is_below(path, folder)) found.push_back(object);
    }
    return found;
  }

  void note(int operation, const Object& object, const std::string& target = "") {
    if (pick(3) > 0) time_ += 1 + pick(5);
    Record record{.at = {time_ * 1000, static_cast<int64_t>(records_.size()) + 1},
                  .operation = operation,
                  .is_folder = object.is_folder,
                  .uid = static_cast<uint32_t>(1001 + pick(3)),
                  .path = object.path,
                  .target = target};
    records_.push_back(record);
  }
  void leave(Object& object) { object.held[object.path] = static_cast<int64_t>(records_.size()); }
  void end(Object& object, Ending ending, const char* word) {
    object.life += std::string(word) + " " + object.path + "; ";
    object.ending = ending;
    leave(object);
    alive_.erase(object.path);
  }
  void go(Object& object, const std::string& path, const char* word) {
    object.life += std::string(word) + " " + object.path + " -> " + path + "; ";
    leave(object);
    alive_.erase(object.path);
    object.path = path;
    object.names.insert(path);
    object.held[path] = 0;
    alive_[path] = &object;
  }

  void make() {
    const std::string path = any_name();
    if (at(path) != nullptr) return;
    objects_.push_back(std::make_unique<Object>());
    Object& object = *objects_.back();
    object.path = path;
    object.is_folder = pick(3) == 0;
    note(object.is_folder ? kMkdir : kCreate, object);
    object.life = "made " + path + "; ";
    object.names.insert(path);
    object.held[path] = 0;
    alive_[path] = &object;
  }
  void change(Object& object) {
    const bool reads = pick(4) == 0;
    note(reads ? history::kReadOperation : kOpen, object);
    object.life += std::string(reads ? "read " : "changed ") + object.path + "; ";
  }
  void rename(Object& object) {
    const std::string target = any_name();
    if (target == object.path) {
      note(kRename, object, target);  // to itself: nothing happens
      return;
    }
    if (is_below(target, object.path) || is_below(object.path, target)) return;
    Object* replaced = at(target);
    if (replaced != nullptr && (replaced->is_folder || object.is_folder)) return;
    const std::string source = object.path;
    const auto carried = below(source);
    note(kRename, object, target);
    if (replaced != nullptr) end(*replaced, Ending::kReplaced, "replaced");
    for (Object* inside : carried)
      go(*inside, target + inside->path.substr(source.size()), "carried");
    go(object, target, "renamed");
  }
  void remove(Object& object) {
    const auto inside = below(object.path);
    if (!inside.empty() && pick(3) > 0) return;
    note(object.is_folder ? kRmdir : kUnlink, object);
    for (Object* lost : inside) end(*lost, Ending::kDeleted, "deleted above");
    end(object, Ending::kDeleted, "deleted");
  }

  void play_one() {
    const int kind = pick(10);
    Object* object = any();
    if (object == nullptr || kind < 3) {
      make();
    } else if (kind < 6) {
      change(*object);
    } else if (kind < 9) {
      rename(*object);
    } else {
      remove(*object);
    }
  }

  std::mt19937 random_;
  std::vector<std::unique_ptr<Object>> objects_;
  std::map<std::string, Object*> alive_;
  std::vector<Record> records_;
  int64_t time_ = 1;
};

class LivesOfAModel : public Lives, public testing::WithParamInterface<unsigned> {};

TEST_P(LivesOfAModel, AreThoseThatTheObjectsWrote) {
  Tree tree(GetParam());
  tree.play(300);
  // The order of taking counts within a time alone: ids of other times may come in any order.
  std::vector<Record> records = tree.records();
  std::ranges::stable_sort(records, std::greater<>(),
                           [](const Record& record) { return record.at.time; });
  int64_t id = 0;
  for (Record& record : records) record.at.id = ++id;
  write_all(records);
  std::size_t several = 0;
  for (const std::string& name : tree.names()) {
    const auto found = lives(
        {.path = name, .reads = true, .all = true, .most_lives = 10'000, .most_changes = 10'000});
    ASSERT_EQ(tree.lives(name), found) << name;
    several += found.size() > 1 ? 1 : 0;
  }
  EXPECT_GT(several, 10U);
}

INSTANTIATE_TEST_SUITE_P(Of, LivesOfAModel, testing::Range(1U, 7U));

}  // namespace
}  // namespace tavrix::test
