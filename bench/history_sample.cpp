// SPDX-License-Identifier: LGPL-3.0-or-later
// Writes a history of any size, of users and folders as unequal as on a real server:
//
//   tavrix_history_sample FILE RECORDS
//
// A few users and folders have most of the records. "Shared/Archive" was busy in the first tenth of
// the year and never again. "Shared/Life/first.txt" is changed, renamed and moved 50 times, by its
// own renames and those of its folders, and deleted at the end.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "tools/history/database.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"
#include "vfs_common.h"

namespace {

using namespace tavrix::history;

constexpr int64_t kBegin = 1763640000LL * 1'000'000;  // 20 November 2025
constexpr int64_t kYear = 365LL * 86400 * 1'000'000;
constexpr int kUsers = 300;
constexpr int kFolders = 20'000;
constexpr int kRenames = 50;
constexpr uint32_t kFirstUid = 20'000;

struct Row {
  int64_t time;
  int op, folder;
  uint32_t uid;
  std::string path, target;
};

class Writer {
 public:
  explicit Writer(sqlite3* database)
      : insert_(
            database,
            "INSERT INTO records (time, op, folder, uid, pid, path, target, address, size, dump)"
            " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, 1)") {}

  void write(const Row& row) {
    const bool is_read = row.op == kReadOperation;
    insert_.bind(1, is_read ? row.time / 1'000'000 * 1'000'000 : row.time);
    insert_.bind(2, int64_t{row.op});
    insert_.bind(3, int64_t{row.folder});
    insert_.bind(4, int64_t{row.uid});
    if (is_read) {
      insert_.bind_null(5);
      insert_.bind(8, std::string_view("10.1.2.3"));
      insert_.bind(9, int64_t{24'576});
    } else {
      insert_.bind(5, int64_t{4000} + row.uid % 1000);
      insert_.bind_null(8);
      insert_.bind_null(9);
    }
    insert_.bind(6, std::string_view(row.path));
    if (row.target.empty()) {
      insert_.bind_null(7);
    } else {
      insert_.bind(7, std::string_view(row.target));
    }
    if (!insert_.run()) std::abort();
  }

 private:
  Statement insert_;
};

class Year {
 public:
  Year() {
    static constexpr const char* kNames[] = {"Projects", "Clients", "2025",    "Reports",
                                             "Drafts",   "Final",   "Minutes", "Budget"};
    folders_.reserve(kFolders);
    folders_.emplace_back("/tavrix/Shared");
    while (folders_.size() < kFolders) {
      const std::string& parent = folders_[random_() % folders_.size()];
      const auto number = std::to_string(random_() % 1000);
      folders_.push_back(parent + "/" + kNames[random_() % std::size(kNames)] + " " + number);
    }
  }

  Row row(int64_t time, double share_of_year) {
    const auto user = unequal(kUsers);
    // Each user works around a place of his own.
    const auto place = (user * 7919 + unequal(kFolders)) % kFolders;
    std::string folder = folders_[place];
    if (share_of_year < 0.1 && random_() % 2 == 0)
      folder = "/tavrix/Shared/Archive/Box " + std::to_string(random_() % 500);
    const std::string name = "/Quarterly report " + std::to_string(unequal(400)) + ".docx";
    Row row{time, operation(), 0, static_cast<uint32_t>(kFirstUid + user), folder + name, ""};
    if (row.op == VFSEVENT__OP_TYPE__OPTYPE_RENAME)
      row.target = folder + "/Final " + std::to_string(random_() % 100'000) + ".docx";
    if (row.op == VFSEVENT__OP_TYPE__OPTYPE_MKDIR || row.op == VFSEVENT__OP_TYPE__OPTYPE_RMDIR) {
      row.folder = 1;
      row.path = folder + "/New folder " + std::to_string(random_() % 100'000);
    }
    return row;
  }

 private:
  // Small numbers come far more often than great ones.
  std::size_t unequal(int count) {
    const double part = std::uniform_real_distribution<>(0, 1)(random_);
    return static_cast<std::size_t>(std::pow(count, part)) - 1;
  }
  int operation() {
    const auto part = random_() % 1000;
    if (part < 450) return VFSEVENT__OP_TYPE__OPTYPE_OPEN;
    if (part < 650) return VFSEVENT__OP_TYPE__OPTYPE_CREATE;
    if (part < 770) return VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
    if (part < 850) return VFSEVENT__OP_TYPE__OPTYPE_RENAME;
    if (part < 870) return VFSEVENT__OP_TYPE__OPTYPE_MKDIR;
    if (part < 871) return VFSEVENT__OP_TYPE__OPTYPE_RMDIR;
    return kReadOperation;
  }

  std::mt19937_64 random_{20261122};
  std::vector<std::string> folders_;
};

// The object with the long life: every second rename is one of its folder.
class Life {
 public:
  Row next(int64_t time) {
    const uint32_t uid = kFirstUid + static_cast<uint32_t>(step_ % 5);
    Row row{time, VFSEVENT__OP_TYPE__OPTYPE_OPEN, 0, uid, folder_ + "/" + name_, ""};
    if (step_ == 0) row.op = VFSEVENT__OP_TYPE__OPTYPE_CREATE;
    if (step_ == 2 * kRenames + 1) row.op = VFSEVENT__OP_TYPE__OPTYPE_UNLINK;
    if (step_ > 0 && step_ % 2 == 0 && step_ <= 2 * kRenames) {
      row.op = VFSEVENT__OP_TYPE__OPTYPE_RENAME;
      const std::string number = std::to_string(step_ / 2);
      if (step_ % 4 == 0) {
        row.folder = 1;
        row.path = folder_;
        row.target = folder_ = "/tavrix/Shared/Life " + number;
      } else {
        name_ = "name " + number + ".txt";
        row.target = folder_ + "/" + name_;
      }
    }
    ++step_;
    return row;
  }
  [[nodiscard]] static int steps() { return 2 * kRenames + 2; }

 private:
  std::string folder_ = "/tavrix/Shared/Life", name_ = "first.txt";
  int step_ = 0;
};

int write_history(const char* file, int64_t records) {
  Problem problem;
  const Database database = open_to_write(file, problem);
  if (database == nullptr) {
    std::fprintf(stderr, "%s\n", problem.sentence.c_str());
    return 1;
  }
  sqlite3* raw = database.get();
  // The indexes come last, which is many times faster.
  std::vector<std::string> drops, makes;
  {
    Statement indexes(raw,
                      "SELECT name, sql FROM sqlite_schema WHERE type = 'index' AND tbl_name = "
                      "'records' AND sql IS NOT NULL");
    while (indexes.step()) {
      drops.push_back("DROP INDEX " + std::string(indexes.text(0)));
      makes.emplace_back(indexes.text(1));
    }
  }
  bool is_done = execute(raw, "PRAGMA synchronous = OFF; PRAGMA cache_size = -1000000");
  for (const std::string& sql : drops) is_done = is_done && execute(raw, sql.c_str());
  is_done =
      is_done &&
      execute(raw,
              "INSERT INTO dumps VALUES (1, 0, 'sample', 1, 1, 1, x'00', 1, 1, 1, NULL); BEGIN");
  Year year;
  Life life;
  Writer writer(raw);
  const int64_t between = records / (Life::steps() + 1);
  for (int64_t i = 0; i < records && is_done; ++i) {
    const double share = static_cast<double>(i) / static_cast<double>(records);
    const int64_t time = kBegin + static_cast<int64_t>(share * static_cast<double>(kYear));
    const bool is_life = between > 0 && i > 0 && i % between == 0 && i / between <= Life::steps();
    writer.write(is_life ? life.next(time) : year.row(time, share));
  }
  is_done = is_done && execute(raw, "COMMIT");
  for (const std::string& sql : makes) is_done = is_done && execute(raw, sql.c_str());
  is_done = is_done && execute(raw, "PRAGMA wal_checkpoint(TRUNCATE)");
  if (!is_done) std::fprintf(stderr, "%s\n", problem_of(raw, file).sentence.c_str());
  return is_done ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: tavrix_history_sample FILE RECORDS\n", stderr);
    return 2;
  }
  return write_history(argv[1], std::strtoll(argv[2], nullptr, 10));
}
