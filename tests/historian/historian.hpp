// SPDX-License-Identifier: LGPL-3.0-or-later
// A historian in a private world, and what its database has.
#pragma once

#include <sys/stat.h>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/tools/sweeper.hpp"
#include "tools/history/database.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::test {

class HistorianWorld : public SweeperWorld {
 protected:
  static constexpr const char* kHistorian = TAVRIX_BUILD_DIR "/tools/tavrix-historian";
  static constexpr const char* kLinks = "/tavrix/.conf/history";
  static constexpr const char* kRefused = "/tavrix/.conf/history/refused";
  static constexpr const char* kAuditing = "/scratch/auditing";
  static constexpr const char* kDatabase = "/scratch/db/history.db";

  void SetUp() override {
    SweeperWorld::SetUp();
    make_dirs(kAuditing);
    configure_history();
    ASSERT_EQ(0, ctl({"config", "load", kConf}).exit_code);
    use_settings();
    ASSERT_EQ(0, once().exit_code);  // the sweeper makes the buffer
  }
  // `more` are lines of the section HISTORIAN.
  static void configure_history(const std::string& more = "") {
    write_settings(65536, 1,
                   std::string("auditing dir = ") + kAuditing +
                       "\n[HISTORIAN]\ndatabase = " + kDatabase + "\n" + more);
  }
  static std::vector<std::string> words(const std::string& option) {
    std::vector<std::string> all = {kHistorian, "--settings", kConf};
    if (!option.empty()) all.push_back(option);
    return all;
  }
  static Outcome keep(const Environment& environment = {}) {
    return run_program(words("--once"), {}, environment);
  }
  static std::unique_ptr<Child> keeper(int haste = 1) {
    return std::make_unique<Child>([haste] {
      hasten(haste);
      execl(kHistorian, "tavrix-historian", "--settings", kConf, nullptr);
      _exit(127);
    });
  }
  // One dump file with these events.
  static void dump(const Paths& paths) {
    for (const std::string& path : paths) send(path);
    ASSERT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
  }
  // The texts of the first column.
  static Paths ask(const std::string& sql, const std::string& file = kDatabase) {
    history::Problem problem;
    const auto database = history::open_to_read(file, problem);
    if (database == nullptr) return {problem.sentence};
    history::Statement rows(database.get(), sql);
    Paths texts;
    while (rows.step()) texts.emplace_back(rows.text(0));
    EXPECT_FALSE(rows.failed()) << sqlite3_errmsg(database.get());
    return texts;
  }
  static Paths kept() { return ask("SELECT path FROM records ORDER BY id"); }
  static Paths notices(const std::string& kind) {
    return ask("SELECT text FROM notices WHERE kind = '" + kind + "' ORDER BY id");
  }
  static Paths links() {
    Paths names;
    for (const std::string& name : list(kLinks)) {
      if (name != "refused") names.push_back(name);
    }
    return names;
  }
  static void put_link(const std::string& name, const std::string& bytes) {
    make_dirs(kLinks);
    write_file(std::string(kLinks) + "/" + name, bytes);
  }
};

}  // namespace tavrix::test
