// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl history, as an administrator uses it.

#include <sys/stat.h>
#include <map>

#include "tests/support/terminal.hpp"
#include "tests/tools/history.hpp"
#include "tests/tools/operator.hpp"
#include "tools/history/schema.hpp"
#include "tools/history/statement.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

class HistoryCommand : public Operator {
 protected:
  static constexpr const char* kFile = "/scratch/history.db";

  void SetUp() override {
    Operator::SetUp();
    write_history(kFile);
    // Links to the machine's files are replaced by files of this world.
    const std::string users = read_file("/etc/passwd");
    unlink("/etc/passwd");
    write_file("/etc/passwd", users + "anna:x:1001:1001::/:/bin/sh\nben:x:1002:1002::/:/bin/sh\n");
    setenv("TZ", "Europe/Berlin", 1);
  }
  static Outcome history(Words words, const char* file = kFile) {
    words.insert(words.begin(), "history");
    words.insert(words.end(), {"--database", file});
    return ctl(words);
  }
  static nlohmann::json history_json(Words words) {
    words.insert(words.begin(), {"history", "--json"});
    words.insert(words.end(), {"--database", kFile});
    return nlohmann::json::parse(ctl(words).out);
  }
  // The rows of CSV as Python reads them, each as JSON.
  static nlohmann::json rows_of(const std::string& csv) {
    const Outcome outcome = run_program(
        {"/usr/bin/python3", "-c",
         "import csv, json, sys; text = sys.stdin.buffer.read().decode('utf-8', 'replace'); "
         "print(json.dumps(list(csv.DictReader(text.splitlines()))))"},
        csv);
    return nlohmann::json::parse(outcome.out);
  }
};

TEST_F(HistoryCommand, ShowsTheLifeOfAFileByItsFirstName) {
  const Outcome outcome = history({"file", "Shared\\Plans\\a,\"b\".txt", "--reads"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(
      "Shared/Older/a,\"b\".txt is deleted\n"
      "  2023-11-14 23:13:21 CET  anna          made     Shared/Plans/a,\"b\".txt\n"
      "  2023-11-14 23:13:22 CET  anna          changed  Shared/Plans/a,\"b\".txt\n"
      "  2023-11-14 23:13:23 CET  ben           read     Shared/Plans/a,\"b\".txt  (10.0.0.2)\n"
      "  2023-11-14 23:13:24 CET  ben           moved    Shared/Plans/a,\"b\".txt -> "
      "Shared/Old/a,\"b\".txt  (folder Shared/Plans -> Shared/Old)\n"
      "  2023-11-14 23:13:25 CET  ben           moved    Shared/Old/a,\"b\".txt -> "
      "Shared/Older/a,\"b\".txt  (folder Shared/Old -> Shared/Older)\n"
      "  2023-11-14 23:13:26 CET  ben           deleted  Shared/Older/a,\"b\".txt\n",
      outcome.out);
  EXPECT_EQ(outcome.out, history({"file", "/tavrix/Shared/Older/a,\"b\".txt", "--reads"}).out);
}

TEST_F(HistoryCommand, SearchesForPeople) {
  EXPECT_EQ(
      "2023-11-14 23:13:26 CET  ben           deleted  Shared/Older/a,\"b\".txt\n"
      "2023-11-14 23:13:25 CET  ben           renamed  Shared/Old/ -> Shared/Older/\n",
      history({"search", "--path", "Shared/Older"}).out);
  EXPECT_EQ("nothing is recorded of this\n", history({"search", "--path", "Shared/none"}).out);
  EXPECT_EQ(history({"search", "--user", "ben"}).out, history({"user", "ben"}).out);
  EXPECT_EQ(history({"user", "1002"}).out, history({"user", "ben"}).out);
}

// A local time and the same one in UTC mean the same.
TEST_F(HistoryCommand, TakesTimesOfTheZone) {
  const auto ids = [](Words words) {
    words.insert(words.begin(), "search");
    std::string text;
    const nlohmann::json page = history_json(words);
    for (const auto& record : page["records"])
      text += std::to_string(record["id"].get<int>()) + " ";
    return text;
  };
  EXPECT_EQ("8 7 ", ids({"--since", "2023-11-14 23:13:26"}));
  EXPECT_EQ("8 7 ", ids({"--since", "2023-11-14T22:13:26Z"}));
  EXPECT_EQ("2 1 ", ids({"--until", "2023-11-14 23:13:21 CET"}));
  EXPECT_EQ("8 7 6 5 3 2 1 ", ids({"--since", "2023-11-14", "--until", "2023-11-14"}));
  EXPECT_EQ("", ids({"--since", "2023-11-15"}));
}

TEST_F(HistoryCommand, PagesForPrograms) {
  nlohmann::json page = history_json({"search", "--reads", "--limit", "4"});
  EXPECT_EQ(4U, page["records"].size());
  EXPECT_EQ(true, page["more"]);
  EXPECT_EQ("ben", page["records"][0]["user_name"]);
  EXPECT_EQ("2023-11-14T22:13:28Z", page["records"][0]["time"]);
  EXPECT_EQ("L3RhdnJpeC9TaGFyZWQvY2Fm6Q==", page["records"][0]["path_base64"]);
  std::vector<int> ids;
  for (;;) {
    for (const auto& record : page["records"]) ids.push_back(record["id"]);
    if (page["more"] == false) break;
    page = history_json({"search", "--reads", "--limit", "4", "--after", page["next"]});
  }
  EXPECT_EQ((std::vector<int>{9, 8, 7, 6, 5, 4, 3, 2, 1}), ids);
}

TEST_F(HistoryCommand, PrintsCommaSeparatedValues) {
  const auto rows = rows_of(history({"search", "--reads", "--csv"}).out);
  ASSERT_EQ(9U, rows.size());
  EXPECT_EQ("/tavrix/Shared/Older/a,\"b\".txt", rows[2]["path"]);
  EXPECT_EQ("deleted", rows[2]["done"]);
  EXPECT_EQ("ben", rows[2]["user"]);
  EXPECT_EQ("2023-11-14T22:13:26.000000Z", rows[2]["time"]);
  EXPECT_EQ("/tavrix/Shared/Old", rows[4]["new_path"]);
  EXPECT_EQ("12", rows[5]["size"]);
  EXPECT_EQ("10.0.0.2", rows[5]["address"]);
  EXPECT_EQ(5U, rows_of(history({"file", "Shared/Old/a,\"b\".txt", "--csv"}).out).size());
}

TEST_F(HistoryCommand, NamesTheNodeOfEachRecordOfACluster) {
  {
    history::Problem problem;
    const history::Database database = history::open_to_write(kFile, problem);
    ASSERT_TRUE(history::execute(
        database.get(),
        "INSERT INTO dumps VALUES (2, 0, 'events.beta.pending_1', 2, 1, 1, x'00', 1, 9, 1, 'beta');"
        "UPDATE records SET dump = 2 WHERE id IN (4, 6, 7)"));
  }
  const std::string lines = history({"search", "--reads"}).out;
  EXPECT_TRUE(contains(lines, "a,\"b\".txt  (10.0.0.2, on beta)\n")) << lines;
  EXPECT_TRUE(contains(lines, "Shared/Older/  (on beta)\n")) << lines;
  EXPECT_TRUE(contains(lines, "Shared/Plans/ -> Shared/Old/\n")) << lines;
  const std::string life = history({"file", "Shared\\Plans\\a,\"b\".txt", "--reads"}).out;
  EXPECT_TRUE(contains(life, "read     Shared/Plans/a,\"b\".txt  (10.0.0.2, on beta)\n")) << life;
  EXPECT_TRUE(contains(life, "deleted  Shared/Older/a,\"b\".txt  (on beta)\n")) << life;
  EXPECT_TRUE(contains(life, "made     Shared/Plans/a,\"b\".txt\n")) << life;
  const auto page = history_json({"search", "--reads"});
  EXPECT_EQ("beta", page["records"][2]["node"]);
  EXPECT_FALSE(page["records"][0].contains("node"));
  const auto steps = history_json({"file", "Shared/Plans/a,\"b\".txt"})["lives"][0]["steps"];
  EXPECT_EQ("beta", steps.back()["record"]["node"]);
  const auto rows = rows_of(history({"search", "--reads", "--csv"}).out);
  EXPECT_EQ("beta", rows[2]["node"]);
  EXPECT_EQ("", rows[0]["node"]);
}

TEST_F(HistoryCommand, Reports) {
  const auto report = history_json({"report", "--since", "1700000000", "--until", "1700003600"});
  EXPECT_EQ(9, report["counts"]["records"]);
  EXPECT_EQ(3, report["counts"]["created"]);
  EXPECT_EQ(1, report["counts"]["deleted"]);
  EXPECT_EQ("hour", report["step"]);
  EXPECT_EQ("ben", report["users"][0]["user_name"]);
  EXPECT_EQ("/tavrix/Shared", report["folders"][0]["path"]);
  EXPECT_EQ("mass-delete", report["notices"][0]["kind"]);
  int records = 0;
  for (const auto& step : report["activity"]) records += step["records"].get<int>();
  EXPECT_EQ(9, records);
  const Outcome text = history({"report", "--since", "1700000000", "--until", "1700003600"});
  EXPECT_TRUE(contains(text.out, "  3 created, 1 changed, 2 renamed, 1 deleted, 2 read\n"))
      << text.out;
  EXPECT_TRUE(contains(text.out, "12 deletions by user 1002")) << text.out;
  const auto rows =
      rows_of(history({"report", "--since", "1700000000", "--until", "1700003600", "--csv"}).out);
  EXPECT_EQ("3", rows[0]["created"]);
}

// A day of 25 hours has 25 steps; a longer time has one for each day of the calendar.
TEST_F(HistoryCommand, ReportsDaysThatClocksChange) {
  const auto steps = [](const char* since, const char* until) {
    return history_json({"report", "--since", since, "--until", until})["activity"].size();
  };
  EXPECT_EQ(25U, steps("2026-10-25", "2026-10-25"));
  EXPECT_EQ(23U, steps("2026-03-29", "2026-03-29"));
  EXPECT_EQ(31U, steps("2026-10-01", "2026-10-31"));
  EXPECT_EQ(31U, steps("2026-03-01", "2026-03-31"));
}

TEST_F(HistoryCommand, WritesAPageThatNeedsNothingElse) {
  const Outcome outcome = history(
      {"report", "--since", "1700000000", "--until", "1700003600", "--html", "/scratch/page.html"});
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ("/scratch/page.html: 9 records\n", outcome.out);
  struct stat info {};
  ASSERT_EQ(0, stat("/scratch/page.html", &info));
  EXPECT_EQ(0600U, info.st_mode & 07777U);
  const std::string page = read_file("/scratch/page.html");
  for (const char* never : {"<script", "http", "@import", "url(", "<b>", "src=", "href="})
    EXPECT_FALSE(contains(page, never)) << never;
  for (const char* part : {"prefers-color-scheme: dark", "<svg", ">ben<", "&lt;b&gt;", ">Shared<"})
    EXPECT_TRUE(contains(page, part)) << part;
  const Outcome parsed = run_program(
      {"/usr/bin/python3", "-c",
       "import sys, xml.dom.minidom; text = open('/scratch/page.html', encoding='utf-8').read(); "
       "page = xml.dom.minidom.parseString(text.replace('<!DOCTYPE html>', '')); "
       "print(len(page.getElementsByTagName('rect')))"});
  EXPECT_EQ(0, parsed.exit_code) << parsed.err;
  EXPECT_GT(std::stoi("0" + parsed.out), 10);
}

TEST_F(HistoryCommand, WritesASoundPageOfNamesOfAnyBytes) {
  history::Problem problem;
  {
    const history::Database database = history::open_to_write(kFile, problem);
    history::Statement insert(database.get(),
                              "INSERT INTO records VALUES (NULL, 1700000009000000, 10, 0, 1001, 7, "
                              "?1, NULL, NULL, NULL, NULL, 1)");
    for (const char* path :
         {"/tavrix/\xff\xfe/x", "/tavrix/\x01 <&\"/x", "/tavrix/\xed\xa0\x80/x",
          "/tavrix/\xf4\x90\x80\x80/x", "/tavrix/caf\xc3\xa9 \xf0\x9f\x98\x80/x", "/tavrix/\xc3"}) {
      insert.bind(1, std::string_view(path));
      ASSERT_TRUE(insert.run());
    }
  }
  ASSERT_EQ(0, history({"report", "--since", "1700000000", "--until", "1700003600", "--html",
                        "/scratch/page.html"})
                   .exit_code);
  const Outcome parsed = run_program(
      {"/usr/bin/python3", "-c",
       "import xml.dom.minidom; text = open('/scratch/page.html', encoding='utf-8').read(); "
       "xml.dom.minidom.parseString(text.replace('<!DOCTYPE html>', ''))"});
  EXPECT_EQ(0, parsed.exit_code) << parsed.err;
  EXPECT_TRUE(contains(read_file("/scratch/page.html"), "caf\xc3\xa9 \xf0\x9f\x98\x80"));
}

TEST_F(HistoryCommand, GoesThroughThePagerOfATerminal) {
  const auto shown = [](const char* pager) {
    return run_on_terminal(
        {TAVRIX_BUILD_DIR "/tools/tavrixctl", "history", "search", "--database", kFile}, {},
        {{"TERM", "xterm"}, {"PAGER", pager}, {"TZ", "UTC"}});
  };
  const TerminalOutcome paged = shown("sed 's/^/> /'");
  EXPECT_EQ(0, paged.exit_code);
  EXPECT_TRUE(paged.shown.starts_with("> 2023-11-14 22:13:27 UTC  anna")) << paged.shown;
  EXPECT_TRUE(shown("").shown.starts_with("2023-11-14 22:13:27 UTC  anna"));
  EXPECT_TRUE(shown("no-such-pager --x").shown.starts_with("2023-11-14 22:13:27 UTC  anna"));
}

TEST_F(HistoryCommand, SaysWhatIsWrongWithTheDatabase) {
  const auto complaint = [](const char* file) {
    const Outcome outcome = history({"search"}, file);
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_EQ("", outcome.out);
    return outcome.err;
  };
  EXPECT_TRUE(contains(complaint("/scratch/none.db"), "there is no history"));
  write_file("/scratch/damaged.db", std::string(10'000, 'x'));
  EXPECT_TRUE(contains(complaint("/scratch/damaged.db"), "damaged"));
  const auto change = [](const char* sql) {
    EXPECT_TRUE(run_program({"/usr/bin/cp", kFile, "/scratch/changed.db"}).ok());
    history::Problem problem;
    const history::Database database = history::open_to_write("/scratch/changed.db", problem);
    EXPECT_TRUE(history::execute(database.get(), sql));
  };
  change("PRAGMA user_version = 99");
  EXPECT_TRUE(contains(complaint("/scratch/changed.db"), "newer version"));
  change("PRAGMA journal_mode = DELETE");
  history::Problem problem;
  sqlite3* raw = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open("/scratch/changed.db", &raw));
  const history::Database holder(raw);
  ASSERT_TRUE(history::execute(raw, "BEGIN EXCLUSIVE"));
  EXPECT_TRUE(contains(complaint("/scratch/changed.db"), "keeps the history locked"));
}

TEST_F(HistoryCommand, EndsWithItsPatienceAndSaysWhereToGoOn) {
  history::Problem problem;
  {
    const history::Database database = history::open_to_write(kFile, problem);
    ASSERT_TRUE(history::execute(
        database.get(),
        "WITH RECURSIVE number(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM number WHERE n < "
        "400000) "
        "INSERT INTO records SELECT NULL, 1700000100000000 + n, 5, 0, 1001, 7, '/tavrix/Shared/x', "
        "NULL, NULL, NULL, NULL, 1 FROM number"));
  }
  const Outcome outcome = history({"search", "--path", "nowhere", "--patience", "1"});
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the search went back to 2023-11-14 23:15:0")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "; --after 1700000")) << outcome.err;
}

TEST_F(HistoryCommand, IsForRootAndTheGroupOfTheSettings) {
  const auto as = [](const char* gid) {
    return run_program({"setpriv", "--reuid=1001", "--regid=1001", std::string("--groups=") + gid,
                        TAVRIX_BUILD_DIR "/tools/tavrixctl", "history", "search", "--database",
                        kFile});
  };
  chmod("/scratch", 0755);
  const Outcome refused = as("1001");
  EXPECT_EQ(2, refused.exit_code);
  EXPECT_TRUE(contains(refused.err, "only root and the group")) << refused.err;
}

// The model of the other tests writes and reads in one process; here the writer is at work.
TEST_F(HistoryCommand, ReadsWhileTheWriterWrites) {
  history::Problem problem;
  const history::Database writer = history::open_to_write(kFile, problem);
  history::Transaction transaction(writer.get());
  ASSERT_TRUE(history::execute(writer.get(), "DELETE FROM records WHERE id = 8"));
  EXPECT_EQ(7U, history_json({"search"})["records"].size());
  ASSERT_TRUE(transaction.commit());
  EXPECT_EQ(6U, history_json({"search"})["records"].size());
}

}  // namespace
}  // namespace tavrix::test
