// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl config.

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <cstring>

#include "eventstore.h"
#include "tavrix_vfs_utils.h"
#include "tests/tools/operator.hpp"
#include "tools/ctl/settings.hpp"
#include "tools/settings/texts.hpp"

namespace tavrix::test {
namespace {

class Config : public Operator {
 protected:
  static Outcome load(const std::string& text) {
    write_file("/scratch/tavrix.conf", text);
    return ctl({"config", "load", "/scratch/tavrix.conf"});
  }
  static const global_param_s* block() {
    return static_cast<global_param_s*>(
        shmat(shmget(ftok("/dev/null", 3456), 0, 0), nullptr, SHM_RDONLY));
  }
  static bool exists_block() { return shmget(ftok("/dev/null", 3456), 0, 0) != -1; }
};

TEST_F(Config, LoadsWhatIsShipped) {
  EXPECT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
  EXPECT_EQ(1048576, block()[4].value.intval);
  EXPECT_STREQ("/tavrix/.conf/staging", block()[6].value.strval);
  EXPECT_EQ(80, block()[7].value.intval);
}

// scripts/generate.sh writes both from the table.
TEST_F(Config, IsDocumentedAsItsTableSays) {
  EXPECT_EQ(settings_text::shipped_file(), read_file(TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"));
  EXPECT_TRUE(contains(read_file(TAVRIX_SOURCE_DIR "/docs/man/tavrixctl.1"),
                       ".\\\" the list of settings\n" + settings_text::manual_items() +
                           ".\\\" end of the list of settings\n"));
}

TEST_F(Config, TakesEveryShippedValue) {
  for (const ctl::Setting& setting : ctl::settings()) {
    std::string error;
    EXPECT_TRUE(ctl::parse_value(setting, setting.shipped, error)) << setting.name << ": " << error;
  }
}

TEST_F(Config, ShipsTheValuesThatMissingKeysTake) {
  ASSERT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
  const auto shipped = json({"config", "show"});
  ctl({"config", "remove", "--yes"});
  load("");
  EXPECT_EQ(shipped, json({"config", "show"}));
}

TEST_F(Config, GivesMissingKeysTheirShippedValues) {
  load("[SWEEPER]\nflush period = 30\nstaging dir = /a\n");
  load("[VFS]\ndebug level = 3\n");
  EXPECT_EQ(3, block()[14].value.intval);
  EXPECT_EQ(5, block()[5].value.intval);
  EXPECT_STREQ("/tavrix/.conf/staging", block()[6].value.strval);
  EXPECT_EQ(1048576, block()[4].value.intval);
}

// The block is never missing for a moment: a client that connected then would make one of zeros.
TEST_F(Config, FillsTheBlockThatIsThere) {
  load("[VFS]\ndebug level = 3\n");
  const int before = shmget(ftok("/dev/null", 3456), 0, 0);
  const global_param_s* attached = block();
  EXPECT_EQ(0, load("[VFS]\ndebug level = 5\n").exit_code);
  EXPECT_EQ(before, shmget(ftok("/dev/null", 3456), 0, 0));
  EXPECT_EQ(5, attached[14].value.intval);
}

TEST_F(Config, FillsTheZeroBlockOfAClient) {
  ASSERT_EQ(0, read_tavrix_config());
  EXPECT_EQ(0, load("").exit_code);
  EXPECT_EQ(1048576, block()[4].value.intval);
  EXPECT_EQ(PARAM_VAL_TYPE_INT, block()[4].type);
  EXPECT_NE(nullptr, block()[4].varname);
}

TEST_F(Config, LoadsWhileClientsConnect) {
  Child client([] {
    while (!exists("/scratch/stop")) read_tavrix_config();
  });
  for (int level = 0; level <= 10; ++level) {
    const Outcome outcome = load("[VFS]\ndebug level = " + std::to_string(level) + "\n");
    EXPECT_EQ(0, outcome.exit_code) << outcome.err;
    EXPECT_EQ(level, block()[14].value.intval);
  }
  write_file("/scratch/stop", "");
  EXPECT_TRUE(client.wait().ok());
}

TEST_F(Config, ReplacesABlockOfAnotherSize) {
  for (const std::size_t size : {std::size_t{100}, std::size_t{40000}}) {
    ctl({"config", "remove", "--yes"});
    ASSERT_NE(-1, shmget(ftok("/dev/null", 3456), size, IPC_CREAT | 0666));
    EXPECT_EQ(0, load("").exit_code);
    EXPECT_EQ(1048576, block()[4].value.intval);
  }
}

TEST_F(Config, KnowsTheNamesAndTypesOfTheBlock) {
  ASSERT_EQ(0, create_config_buffer());
  std::size_t named = 0;
  for (int index = 0; index < PARAM_MAX_INDEX; ++index) {
    if (global_params[index].varname == nullptr) continue;
    ++named;
    const ctl::Setting* setting = ctl::find_setting(global_params[index].varname);
    ASSERT_NE(nullptr, setting) << global_params[index].varname;
    EXPECT_EQ(index, setting->index);
    EXPECT_EQ(global_params[index].type, setting->type);
  }
  EXPECT_EQ(named, ctl::settings().size());
}

TEST_F(Config, TakesNamesInAnyCaseAndCommentsAndQuotes) {
  const Outcome outcome = load(
      "# text\n[vfs]\nDebug Level = 7 ; seven\n[Sweeper]\n"
      "STAGING DIR = \"/with ; and # in\"\nflush period=30\n");
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_EQ(7, block()[14].value.intval);
  EXPECT_STREQ("/with ; and # in", block()[6].value.strval);
  EXPECT_EQ(30, block()[5].value.intval);
}

TEST_F(Config, TakesTheLongestText) {
  const std::string text(1000, 'x');
  EXPECT_EQ(0, load("[SWEEPER]\nstaging dir = " + text + "\n").exit_code);
  EXPECT_EQ(text, block()[6].value.strval);
}

TEST_F(Config, TakesTheWordsForYesAndNo) {
  for (const char* yes : {"yes", "TRUE", "on", "1"}) {
    ctl({"config", "remove", "--yes"});
    EXPECT_EQ(0, load(std::string("[SWEEPER]\ndisable sweeper flush = ") + yes + "\n").exit_code);
    EXPECT_EQ(1, block()[3].value.intval) << yes;
  }
}

struct Mistake {
  const char* text;
  const char* error;
};

TEST_F(Config, NamesFileLineAndKeyOfEveryMistake) {
  const Mistake mistakes[] = {
      {"[VFS]\n\ndebug levle = 0\n", "tavrix.conf:3: VFS:debug levle: no such setting"},
      {"[VFS]\ndebug level = high\n", "tavrix.conf:2: VFS:debug level: \"high\" is not a number"},
      {"[VFS]\ndebug level = 11\n", "tavrix.conf:2: VFS:debug level: 11 is out of range: -1 to 10"},
      {"[VFS]\ndebug level = 99999999999999999999\n", "out of range"},
      {"[VFS]\ndebug level = 007\n", "a leading zero would make some readers take it for octal"},
      {"[SWEEPER]\ndisable sweeper flush = maybe\n", "\"maybe\" is neither yes nor no"},
      {"[VFS]\ndebug level = 1\nDebug Level = 2\n",
       "tavrix.conf:3: VFS:Debug Level: given before, in line 2"},
      {"[VFS]\nnonsense\n", "tavrix.conf:2: neither a section nor a value"},
      {"[VFS\ndebug level = 1\n", "tavrix.conf:1: the section has no end"},
      {"[SWEEPER]\nstaging dir = /a;b\n",
       "tavrix.conf:2: SWEEPER:staging dir: \"/a;b\" would be read as \"/a\""},
      {"[SWEEPER]\nstaging dir = /a\\\n", "tavrix.conf:2: lines cannot be continued"},
  };
  for (const Mistake& mistake : mistakes) {
    const Outcome outcome = load(mistake.text);
    EXPECT_EQ(2, outcome.exit_code) << mistake.text;
    EXPECT_TRUE(contains(outcome.err, mistake.error)) << outcome.err;
    EXPECT_FALSE(exists_block()) << mistake.text;
  }
}

TEST_F(Config, FindsLinesAndTextsThatAreTooLong) {
  EXPECT_TRUE(contains(load("[SWEEPER]\nstaging dir = " + std::string(2000, 'x') + "\n").err,
                       "tavrix.conf:2: the line has 2014 bytes; 1023 is the most"));
  ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"});
  const Outcome outcome = ctl({"config", "set", "SWEEPER:staging dir", std::string(1024, 'x')});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the text has 1024 bytes; 1023 is the most")) << outcome.err;
  EXPECT_EQ(0, ctl({"config", "set", "SWEEPER:staging dir", std::string(1023, 'x')}).exit_code);
}

TEST_F(Config, FindsAllMistakesAtOnceAndChangesNothing) {
  load("[VFS]\ndebug level = 3\n");
  const Outcome outcome = load("[VFS]\ndebug level = 5\nx = 1\ny = 2\n");
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "VFS:x")) << outcome.err;
  EXPECT_TRUE(contains(outcome.err, "VFS:y")) << outcome.err;
  EXPECT_EQ(3, block()[14].value.intval);
}

TEST_F(Config, NeedsAFile) {
  const Outcome outcome = ctl({"config", "load", "/none"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_EQ("tavrixctl: /none: No such file or directory\n", outcome.err);
}

TEST_F(Config, ShowsEverySetting) {
  load("[VFS]\ndebug level = 3\n[SWEEPER]\nstaging dir = /a b\n");
  const Outcome outcome = ctl({"config", "show"});
  EXPECT_TRUE(contains(outcome.out, "VFS:debug level                    number  3\n"))
      << outcome.out;
  const auto all = json({"config", "show"})["settings"];
  EXPECT_EQ(ctl::settings().size(), all.size());
  for (const auto& entry : all) {
    if (entry["name"] == "VFS:debug level") {
      EXPECT_EQ(3, entry["value"]);
    }
    if (entry["name"] == "SWEEPER:staging dir") {
      EXPECT_EQ("/a b", entry["value"]);
    }
    if (entry["name"] == "SWEEPER:disable sweeper flush") {
      EXPECT_EQ(false, entry["value"]);
    }
  }
}

TEST_F(Config, ExplainsEverySetting) {
  load("");
  const std::string text = ctl({"config", "show", "--explain"}).out;
  for (const ctl::Setting& setting : ctl::settings()) {
    EXPECT_TRUE(contains(text, std::string("\n    ") + setting.meaning + "\n")) << setting.name;
  }
  EXPECT_FALSE(contains(ctl({"config", "show"}).out, "flushes"));
}

// The text of a setting that only logs must not say that it allows something.
TEST_F(Config, SaysThatForbiddenRmdirAllowsNothing) {
  EXPECT_TRUE(contains(ctl::find_setting("VFS:enable forbidden rmdir")->meaning, "allows nobody"));
  const std::string shipped = read_file(TAVRIX_SOURCE_DIR "/packaging/tavrix.conf");
  EXPECT_FALSE(contains(shipped, "may be removed all the same"));
}

TEST_F(Config, NamesAPatternFileThatIsShipped) {
  ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"});
  EXPECT_STREQ("/etc/tavrix/exception_patterns", block()[PARAM_REGEX_FILE_NAME].value.strval);
  EXPECT_TRUE(exists(TAVRIX_SOURCE_DIR "/packaging/exception_patterns"));
}

TEST_F(Config, SetsOneSetting) {
  load("");
  EXPECT_EQ(0, ctl({"config", "set", "vfs:DEBUG level", "-1"}).exit_code);
  EXPECT_EQ(-1, block()[14].value.intval);
  EXPECT_EQ(0, ctl({"config", "set", "SWEEPER:staging dir", "/long/path"}).exit_code);
  EXPECT_EQ(0, ctl({"config", "set", "SWEEPER:staging dir", "/x"}).exit_code);
  EXPECT_STREQ("/x", block()[6].value.strval);
  EXPECT_EQ('\0', block()[6].value.strval[3]);
  EXPECT_EQ(2, ctl({"config", "set", "VFS:nothing", "1"}).exit_code);
  EXPECT_EQ(2, ctl({"config", "set", "VFS:debug level", ""}).exit_code);
}

TEST_F(Config, WithoutABlockSaysSo) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"config", "show"},
                                                {"config", "set", "VFS:debug level", "1"},
                                                {"config", "remove", "--yes"}}) {
    const Outcome outcome = ctl(words);
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_TRUE(contains(outcome.err, "there is no parameter block")) << outcome.err;
  }
}

TEST_F(Config, RefusesABlockOfAnotherSize) {
  ASSERT_NE(-1, shmget(ftok("/dev/null", 3456), 100, IPC_CREAT | 0666));
  const Outcome outcome = ctl({"config", "show"});
  EXPECT_EQ(2, outcome.exit_code);
  EXPECT_TRUE(contains(outcome.err, "the parameter block has 100 bytes, not " +
                                        std::to_string(TAVRIX_PARAM_BLOCK_SIZE)))
      << outcome.err;
}

TEST_F(Config, Removes) {
  load("");
  EXPECT_EQ(0, ctl({"config", "remove", "--yes"}).exit_code);
  EXPECT_FALSE(exists_block());
}

TEST_F(Config, ShowsTextsOfAnyBytes) {
  load("");
  ctl({"config", "set", "SWEEPER:staging dir", "/a\xff"});
  const auto all = json({"config", "show"});
  for (const auto& entry : all["settings"]) {
    if (entry["name"] == "SWEEPER:staging dir") {
      EXPECT_EQ("L2H/", entry["value_base64"]);
    }
  }
}

}  // namespace
}  // namespace tavrix::test
