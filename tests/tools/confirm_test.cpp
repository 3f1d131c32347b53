// SPDX-License-Identifier: LGPL-3.0-or-later
// Commands that destroy something ask on a terminal and want --yes elsewhere.

#include "tests/support/terminal.hpp"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

// A command that removes something, and a command that fails once it is gone.
struct Removal {
  Words remove, look;
};

class Confirm : public Operator {
 protected:
  void make_all() {
    make_dirs("/tavrix/.conf");
    ASSERT_EQ(0, ctl({"config", "load", TAVRIX_SOURCE_DIR "/packaging/tavrix.conf"}).exit_code);
    ASSERT_EQ(0, ctl({"events", "buffer", "create"}).exit_code);
    ASSERT_EQ(0, import(team()).exit_code);
  }
  static std::vector<Removal> removals() {
    return {{{"events", "buffer", "remove"}, {"events", "buffer", "show"}},
            {{"map", "remove"}, {"map", "info"}},
            {{"config", "remove"}, {"config", "show"}}};
  }
  static TerminalOutcome on_terminal(Words words, const std::string& answer) {
    words.insert(words.begin(), TAVRIX_BUILD_DIR "/tools/tavrixctl");
    return run_on_terminal(words, {{"? [y/N] ", answer}});
  }
  static bool is_there(const Removal& removal) { return ctl(removal.look).exit_code == 0; }
};

TEST_F(Confirm, WithoutATerminalYesIsNeeded) {
  make_all();
  for (const Removal& removal : removals()) {
    const Outcome outcome = ctl(removal.remove);
    EXPECT_EQ(2, outcome.exit_code);
    EXPECT_EQ("", outcome.out);
    EXPECT_EQ(
        "tavrixctl: this destroys something, and there is no terminal to ask on; give --yes to do "
        "it\n",
        outcome.err);
    EXPECT_TRUE(is_there(removal)) << removal.remove.front();
  }
}

TEST_F(Confirm, YesIsEnough) {
  make_all();
  for (const Removal& removal : removals()) {
    Words words = removal.remove;
    words.emplace_back("--yes");
    EXPECT_EQ(0, ctl(words).exit_code);
    EXPECT_FALSE(is_there(removal)) << removal.remove.front();
  }
}

TEST_F(Confirm, AnythingButYesOnTheTerminalIsNo) {
  make_all();
  for (const Removal& removal : removals()) {
    for (const std::string answer : {"n\n", "\n", "yesterday\n", "\x04"}) {
      const TerminalOutcome outcome = on_terminal(removal.remove, answer);
      EXPECT_EQ(1, outcome.exit_code) << outcome.shown;
      EXPECT_TRUE(contains(outcome.shown, "nothing is removed")) << outcome.shown;
      EXPECT_TRUE(is_there(removal)) << removal.remove.front();
    }
  }
}

TEST_F(Confirm, YesOnTheTerminalRemoves) {
  for (const std::string answer : {"y\n", "Y\n", "yes\n"}) {
    make_all();
    for (const Removal& removal : removals()) {
      const TerminalOutcome outcome = on_terminal(removal.remove, answer);
      EXPECT_EQ(0, outcome.exit_code) << outcome.shown;
      EXPECT_TRUE(contains(outcome.shown, " Remove the ")) << outcome.shown;
      EXPECT_FALSE(is_there(removal)) << removal.remove.front();
    }
  }
}

TEST_F(Confirm, AStaleTableIsRemovedWithoutAQuestion) {
  make_all();
  EXPECT_EQ(0, ctl({"map", "remove", "--stale"}).exit_code);
  EXPECT_EQ(0, ctl({"map", "info"}).exit_code);
}

}  // namespace
}  // namespace tavrix::test
