// SPDX-License-Identifier: LGPL-3.0-or-later
// CTDB's event scripts, with programs that answer as a test wants. tests/cluster runs them in a
// cluster.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include "tests/support/files.hpp"
#include "tests/support/isolated.hpp"
#include "tests/support/process.hpp"

namespace tavrix::test {
namespace {

const std::string kCalls = "/scratch/calls";
const std::string kUntold = "/run/tavrix/cluster.untold";

class EventScripts : public Isolated {
 protected:
  void SetUp() override {
    Isolated::SetUp();
    ASSERT_EQ(0, mount("tmpfs", "/run", "tmpfs", 0, nullptr));
    for (const char* folder : {"/run/tavrix", "/scratch/bin", "/scratch/ctdb"}) make_dirs(folder);
    write_file("/scratch/ctdb/functions",
               "load_script_options() { :; }\ndie() { echo \"$1\" >&2; exit 1; }\n");
    write_file(kCalls, "");
    answer("ctdb", R"(case "$*" in
"-X nodestatus") printf '|Node|IP|\n|0|10.0.0.1|\n' ;;
"-X status") cat /scratch/status ;;
esac)");
    answer("tavrixctl", "exit 0");
    answer("sleep", "exit 0");
    all_connected();
  }
  // A program that notes its arguments and then does that.
  static void answer(const std::string& program, const std::string& script) {
    const std::string path = "/scratch/bin/" + program;
    write_file(path, "#!/bin/sh\necho " + program + " \"$@\" >>" + kCalls + "\n" + script + "\n");
    ASSERT_EQ(0, chmod(path.c_str(), 0755));
  }
  static void all_connected() {
    write_file("/scratch/status", "|Node|IP|Disconnected|\n|0|10.0.0.1|0|\n|1|10.0.0.2|0|\n");
  }
  static void the_second_is_gone() {
    write_file("/scratch/status", "|Node|IP|Disconnected|\n|0|10.0.0.1|0|\n|1|10.0.0.2|1|\n");
  }
  static void with_systemd() { make_dirs("/run/systemd/system"); }
  // The mark of this node, as its sweeper makes it when it knows the address.
  static void with_mark() {
    char name[65] = "";
    gethostname(name, sizeof name - 1);
    const std::string host = name;
    make_dirs("/tavrix/.conf/cluster/running");
    write_file("/tavrix/.conf/cluster/running/" + host.substr(0, host.find('.')),
               "boot\n10.0.0.1\n1\n");
  }
  static Outcome run(const std::string& script, const std::string& event) {
    write_file(kCalls, "");
    return run_program({TAVRIX_SOURCE_DIR "/cluster/events/" + script + ".tavrix.script", event},
                       "",
                       {{"CTDB_BASE", "/scratch/ctdb"}, {"PATH", "/scratch/bin:/usr/bin:/bin"}});
  }
  static bool called(const std::string& line) {
    return read_file(kCalls).find(line + "\n") != std::string::npos;
  }
};

TEST_F(EventScripts, StartOnlyWithTheServicesOfSystemd) {
  with_systemd();
  with_mark();
  answer("systemctl", "exit 3");
  const Outcome refused = run("45", "startup");
  EXPECT_EQ(1, refused.exit_code);
  EXPECT_NE(std::string::npos, refused.err.find("systemctl status tavrix-sweeper")) << refused.err;
  answer("systemctl", "exit 0");
  const Outcome outcome = run("45", "startup");
  EXPECT_EQ(0, outcome.exit_code) << outcome.err;
  EXPECT_TRUE(called("systemctl is-active --quiet tavrix-sweeper.service"));
  EXPECT_TRUE(called("systemctl is-active --quiet tavrix-loader.service"));
}

TEST_F(EventScripts, StartOnlyWhenOtherNodesKnowTheAddress) {
  with_systemd();
  answer("systemctl", "exit 0");
  const Outcome outcome = run("45", "startup");
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_NE(std::string::npos, outcome.err.find("CLUSTER:enabled = yes")) << outcome.err;
  EXPECT_EQ("10.0.0.1\n", read_file("/run/tavrix/cluster.address"));
}

TEST_F(EventScripts, StartOnlyWithTheMapOfTheCluster) {
  with_systemd();
  with_mark();
  answer("systemctl", "exit 0");
  answer("tavrix-clusterd", "exit 1");
  EXPECT_EQ(1, run("45", "startup").exit_code);
  EXPECT_TRUE(called("tavrix-clusterd --join --wait 12"));
  answer("tavrix-clusterd", "exit 0");
  EXPECT_EQ(0, run("45", "startup").exit_code);
}

TEST_F(EventScripts, TellOfNodesThatAreGone) {
  EXPECT_EQ(0, run("45", "ipreallocated").exit_code);
  EXPECT_FALSE(called("tavrixctl --json cluster lost 10.0.0.2"));
  the_second_is_gone();
  answer("tavrixctl", R"(case "$*" in *lost*) echo '{"node": "node2", "result": "told"}' ;; esac)");
  EXPECT_EQ(0, run("45", "ipreallocated").exit_code);
  EXPECT_TRUE(called("tavrixctl --json cluster lost 10.0.0.2"));
  EXPECT_FALSE(called("tavrixctl --json cluster lost 10.0.0.1"));
  EXPECT_TRUE(called("tavrixctl cluster adopt node2"));
  EXPECT_FALSE(exists(kUntold));
}

TEST_F(EventScripts, AskAgainForANodeThatSeemedToLive) {
  the_second_is_gone();
  answer("tavrixctl", "case \"$*\" in *lost*) exit 1 ;; esac");
  EXPECT_EQ(0, run("45", "ipreallocated").exit_code);
  EXPECT_FALSE(called("tavrixctl cluster adopt node2"));
  EXPECT_EQ("10.0.0.2\n", read_file(kUntold));
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_TRUE(called("tavrixctl --json cluster lost 10.0.0.2"));
  all_connected();  // it was there all the time
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_FALSE(exists(kUntold));
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_EQ("", read_file(kCalls));  // a monitor in quiet times asks nobody
}

TEST_F(EventScripts, AskAgainToSettleWhatANodeLeft) {
  the_second_is_gone();
  answer("tavrixctl", R"(case "$*" in
*lost*) echo '{"node": "node2", "result": "told"}' ;;
*adopt*) exit 1 ;;
esac)");
  EXPECT_EQ(0, run("45", "ipreallocated").exit_code);
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_EQ("tavrixctl cluster adopt node2\n", read_file(kCalls));
  answer("tavrixctl", "exit 0");
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_TRUE(called("tavrixctl cluster adopt node2"));
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_EQ("", read_file(kCalls));
}

TEST_F(EventScripts, LeaveTheFilesToANodeThatIsBack) {
  write_file("/run/tavrix/cluster.unadopted", "node2\n");
  make_dirs("/tavrix/.conf/cluster/running");
  write_file("/tavrix/.conf/cluster/running/node2", "boot\n");
  EXPECT_EQ(0, run("45", "monitor").exit_code);
  EXPECT_EQ("", read_file(kCalls));
  EXPECT_FALSE(exists("/run/tavrix/cluster.unadopted"));
}

TEST_F(EventScripts, AreUnhealthyWithTheSentenceOfTheHealth) {
  answer("tavrixctl", "echo 'the sweeper does not run'; exit 1");
  const Outcome outcome = run("60", "monitor");
  EXPECT_EQ(1, outcome.exit_code);
  EXPECT_EQ("UNHEALTHY: the sweeper does not run\n", outcome.err);
  answer("tavrixctl", "exit 0");
  EXPECT_EQ(0, run("60", "monitor").exit_code);
  EXPECT_EQ("tavrixctl health\n", read_file(kCalls));
}

TEST_F(EventScripts, StopTheSweeperAfterTheServer) {
  Child sweeper([] {
    execl("/bin/sleep", "sleep", "600", nullptr);
    _exit(127);
  });
  write_file("/run/tavrix/sweeper.pid", std::to_string(sweeper.pid()));
  EXPECT_EQ(0, run("45", "shutdown").exit_code);
  EXPECT_EQ(0, kill(sweeper.pid(), 0));
  with_systemd();
  EXPECT_EQ(0, run("60", "shutdown").exit_code);  // the sweeper is systemd's
  EXPECT_EQ(0, kill(sweeper.pid(), 0));
  ASSERT_EQ(0, rmdir("/run/systemd/system"));
  EXPECT_EQ(0, run("60", "shutdown").exit_code);
  EXPECT_EQ(SIGTERM, sweeper.wait().signal);
}

}  // namespace
}  // namespace tavrix::test
