// SPDX-License-Identifier: LGPL-3.0-or-later
// Completion: the answers of the program, and what bash, zsh and fish make of them.

#include "tests/support/terminal.hpp"
#include "tests/tools/operator.hpp"

namespace tavrix::test {
namespace {

using Words = std::vector<std::string>;

const std::string kScripts = TAVRIX_SOURCE_DIR "/tools/shells";

class Completion : public Operator {
 protected:
  void SetUp() override {
    Operator::SetUp();
    write_file("/scratch/groups.json", R"({"users": {"anna": [1], "andrea": [2], "bert": [3]}})");
    ASSERT_EQ(
        0, ctl({"groupmap", "build", "/scratch/groups.json", "-o", "/etc/tavrix/groupmap_refresh"})
               .exit_code);
    write_file("/scratch/plan one.json", "");
    make_dirs("/scratch/plans");
  }
  // The words, without what explains them.
  static std::set<std::string> words(Words line) {
    line.insert(line.begin(), "--complete");
    const Outcome outcome = ctl(line);
    EXPECT_EQ(0, outcome.exit_code) << outcome.err;
    EXPECT_EQ("", outcome.err);
    std::set<std::string> found;
    std::istringstream in(outcome.out);
    for (std::string answer; std::getline(in, answer);) {
      EXPECT_TRUE(contains(answer, "\t")) << answer;
      found.insert(answer.substr(0, answer.find('\t')));
    }
    return found;
  }
  // The path of the tools comes first in the shells of these tests.
  static std::string with_path() { return "PATH=" TAVRIX_BUILD_DIR "/tools:$PATH\n"; }
  // The command line of a bash on a terminal, after a tab.
  static std::string bash(const std::string& line) {
    write_file("/scratch/bashrc", with_path() + R"sh(
. /usr/share/bash-completion/bash_completion
. )sh" + kScripts + R"sh(/tavrixctl.bash
PS1='ready>'
tell() { printf %s "$READLINE_LINE" >/scratch/bash-line; exit; }
bind -x '"\C-g": tell'
cd /scratch
)sh");
    return completed({"bash", "--noprofile", "--rcfile", "/scratch/bashrc", "-i"}, line + "\t\a",
                     {{"TERM", "xterm"}}, "/scratch/bash-line");
  }
  static std::string fish(const std::string& line) {
    return run_program({"fish", "--no-config", "-c",
                        "set -x PATH " TAVRIX_BUILD_DIR "/tools $PATH; cd /scratch; source " +
                            kScripts + "/tavrixctl.fish; complete -C " + "\"" + line + "\""})
        .out;
  }
  // The command line of a zsh on a terminal, after a tab.
  static std::string zsh(const std::string& line) {
    make_dirs("/scratch/zsh");
    write_file("/scratch/zsh/.zshrc", with_path() + "fpath=(" + kScripts + R"sh( $fpath)
autoload -Uz compinit
compinit -u -D
PROMPT='ready>'
tell() { print -rn -- "$BUFFER" >/scratch/zsh/line; exit }
zle -N tell
bindkey '^G' tell
cd /scratch
)sh");
    return completed({"zsh", "-d", "-i"}, line + "\t\a",
                     {{"TERM", "xterm"}, {"ZDOTDIR", "/scratch/zsh"}}, "/scratch/zsh/line");
  }
  // Types into a shell whose Ctrl-G writes the command line to a file and ends the shell.
  static std::string completed(const Words& shell, const std::string& typed,
                               const Environment& environment, const std::string& file) {
    remove_all(file);
    const auto outcome = run_on_terminal(shell, {{"ready>", typed}}, environment);
    EXPECT_TRUE(exists(file)) << outcome.shown;
    return exists(file) ? read_file(file) : "";
  }
};

TEST_F(Completion, OffersTheCommandsAtEachPlace) {
  const auto top = words({""});
  for (const char* command : {"status", "map", "check", "help"}) EXPECT_TRUE(top.contains(command));
  EXPECT_EQ((std::set<std::string>{"import"}), words({"map", "im"}));
  EXPECT_EQ((std::set<std::string>{"create", "flush", "remove", "show"}),
            words({"events", "buffer", ""}));
  EXPECT_EQ((std::set<std::string>{"import", "info"}), words({"help", "map", "i"}));
  EXPECT_EQ((std::set<std::string>{}), words({"help", "map", "import", ""}));
  EXPECT_EQ((std::set<std::string>{}), words({"elephant", "--z"}));
}

TEST_F(Completion, OffersTheOptionsThatAreNotThereYet) {
  EXPECT_EQ((std::set<std::string>{"--depth"}), words({"map", "tree", "--de"}));
  EXPECT_EQ((std::set<std::string>{}), words({"map", "tree", "--depth", "2", "--de"}));
  const auto options = words({"map", "import", "--"});
  for (const char* name : {"--trust", "--consume", "--json", "--no-progress", "--help"}) {
    EXPECT_TRUE(options.contains(name)) << name;
  }
  EXPECT_FALSE(options.contains("--version"));
  EXPECT_EQ((std::set<std::string>{":files"}), words({"map", "import", "--", "--"}));
}

TEST_F(Completion, OffersTheValuesOfSets) {
  EXPECT_EQ((std::set<std::string>{"open-chattr", "open-read", "open-write", "opendir"}),
            words({"check", "--user", "anna", "open"}));
  EXPECT_EQ((std::set<std::string>{"VFS:debug level", "VFS:default group", "VFS:default user"}),
            words({"config", "set", "VFS:de"}));
}

TEST_F(Completion, OffersTheUsersOfTheGroupMap) {
  EXPECT_EQ((std::set<std::string>{"andrea", "anna"}), words({"check", "--user", "an"}));
  EXPECT_EQ((std::set<std::string>{"andrea", "anna", "bert"}), words({"groupmap", "show", ""}));
  write_file("/etc/tavrix/groupmap_refresh", "broken");
  EXPECT_EQ((std::set<std::string>{}), words({"groupmap", "show", ""}));
}

TEST_F(Completion, LeavesFilesAndFoldersToTheShell) {
  EXPECT_EQ((std::set<std::string>{":files"}), words({"map", "lint", ""}));
  EXPECT_EQ((std::set<std::string>{":files"}), words({"map", "lint", "size.json", ""}));
  EXPECT_EQ((std::set<std::string>{}), words({"map", "lint", "size.json", "data.json", ""}));
  EXPECT_EQ((std::set<std::string>{":files"}), words({"events", "decode", "a", "b", ""}));
  EXPECT_EQ((std::set<std::string>{":folders"}), words({"events", "decode", "--follow", ""}));
  EXPECT_EQ((std::set<std::string>{"search", "file", "user", "report"}), words({"history", ""}));
  EXPECT_TRUE(words({"history", "search", "--op", "d"}).contains("delete"));
}

TEST_F(Completion, KnowsValuesBehindAnEqualSign) {
  EXPECT_EQ((std::set<std::string>{":files"}), words({"map", "info", "--file", "="}));
  EXPECT_EQ((std::set<std::string>{"andrea", "anna"}), words({"check", "--user", "=", "an"}));
}

TEST_F(Completion, NeedsNoRootAndNoMap) {
  const Outcome outcome =
      run_program({"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                   TAVRIX_BUILD_DIR "/tools/tavrixctl", "--complete", "map", "li"});
  EXPECT_TRUE(outcome.out.starts_with("lint\t")) << outcome.err;
}

TEST_F(Completion, OffersTheMapInForceBesideFiles) {
  EXPECT_EQ((std::set<std::string>{":files", "current"}), words({"map", "diff", ""}));
  EXPECT_EQ((std::set<std::string>{":files", "current"}), words({"map", "diff", "old", "cu"}));
  EXPECT_EQ((std::set<std::string>{":files"}), words({"map", "diff", "current", "plan"}));
  EXPECT_EQ("tavrixctl map diff current plan\\ one.json ",
            bash("tavrixctl map diff current plan\\ "));
}

TEST_F(Completion, OfTheServicesIsAnsweredToo) {
  const Outcome outcome =
      run_program({TAVRIX_BUILD_DIR "/tools/tavrix-loader", "--complete", "--on"});
  EXPECT_TRUE(outcome.out.starts_with("--once\t")) << outcome.out;
}

using Shell = std::string (*)(const std::string&);

void expect_commands_options_and_values(Shell shell) {
  EXPECT_EQ("tavrixctl map import ", shell("tavrixctl map im"));
  EXPECT_EQ("tavrixctl map tree --depth ", shell("tavrixctl map tree --de"));
  EXPECT_EQ("tavrixctl check --user anna ", shell("tavrixctl check --user ann"));
  EXPECT_EQ("tavrixctl config set VFS:debug\\ level ", shell("tavrixctl config set VFS:deb"));
  EXPECT_EQ("tavrixctl map diff current ", shell("tavrixctl map diff cur"));
}
void expect_values_behind_an_equal_sign(Shell shell) {
  EXPECT_EQ("tavrixctl check --user=anna ", shell("tavrixctl check --user=ann"));
  EXPECT_EQ("tavrixctl check --user=bert ", shell("tavrixctl check --user=b"));
  EXPECT_EQ("tavrixctl map info --file=plan\\ one.json ",
            shell("tavrixctl map info --file=plan\\ "));
}
void expect_files_and_folders(Shell shell) {
  EXPECT_EQ("tavrixctl map lint plan\\ one.json ", shell("tavrixctl map lint plan\\ "));
  EXPECT_EQ("tavrixctl events decode --follow plans/",
            shell("tavrixctl events decode --follow pl"));
}

TEST_F(Completion, InBashCompletesCommandsOptionsAndValues) {
  expect_commands_options_and_values(bash);
}
TEST_F(Completion, InBashCompletesValuesBehindAnEqualSign) {
  expect_values_behind_an_equal_sign(bash);
}
TEST_F(Completion, InBashFindsFilesAndFolders) { expect_files_and_folders(bash); }
TEST_F(Completion, InBashQuotesTheNamesOfSettings) {
  EXPECT_EQ("tavrixctl config set VFS:debug\\ level ", bash("tavrixctl config set VFS:debug\\ l"));
  EXPECT_EQ("tavrixctl config set 'VFS:debug level' ", bash("tavrixctl config set 'VFS:deb"));
}

TEST_F(Completion, InZshCompletesCommandsOptionsAndValues) {
  expect_commands_options_and_values(zsh);
}
TEST_F(Completion, InZshCompletesValuesBehindAnEqualSign) {
  expect_values_behind_an_equal_sign(zsh);
}
TEST_F(Completion, InZshFindsFilesAndFolders) { expect_files_and_folders(zsh); }

TEST_F(Completion, InFishOffersValuesBehindAnEqualSign) {
  EXPECT_EQ("--user=anna", fish("tavrixctl check --user=ann").substr(0, 11));
  EXPECT_TRUE(contains(fish("tavrixctl map info --file=pl"), "--file=plan one.json"));
  EXPECT_TRUE(contains(fish("tavrixctl map diff cur"), "current"));
}

TEST_F(Completion, InFishOffersCommandsOptionsAndFiles) {
  EXPECT_TRUE(fish("tavrixctl map im").starts_with("import\t")) << fish("tavrixctl map im");
  EXPECT_TRUE(fish("tavrixctl map tree --de").starts_with("--depth\t"));
  EXPECT_TRUE(fish("tavrixctl config set VFS:deb").starts_with("VFS:debug level"));
  EXPECT_TRUE(contains(fish("tavrixctl map lint pl"), "plan one.json"));
  const std::string folders = fish("tavrixctl events decode --follow pl");
  EXPECT_TRUE(contains(folders, "plans/") && !contains(folders, "one.json")) << folders;
}

}  // namespace
}  // namespace tavrix::test
