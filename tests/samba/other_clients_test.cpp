// SPDX-License-Identifier: LGPL-3.0-or-later
// rclone, an independent client, copies whole trees as a writer and as users with fewer rights.

#include "tests/samba/matrix/account.hpp"
#include "tests/samba/matrix/judge.hpp"
#include "tests/samba/matrix/world.hpp"

namespace tavrix::test {
namespace {

class OtherClients : public MatrixWorld {
 protected:
  void SetUp() override {
    MatrixWorld::SetUp();
    make_dirs("/scratch/up/a/b");
    write_file("/scratch/up/one", "1");
    write_file("/scratch/up/a/two", "22");
    write_file("/scratch/up/a/b/three", std::string(200000, '3'));
  }
  // Runs a command; each of its changes must be allowed and recorded.
  Outcome rclone(const Caller& caller, const Lines& arguments) {
    Account account{.caller = &caller, .map = &map_, .before = Disk::now(kShareRoot)};
    const std::string password = run_program({"rclone", "obscure", caller.name}).out;
    Lines command{
        "rclone", "--config", "/scratch/rclone.conf", "--retries", "1", "--low-level-retries", "1"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    const Outcome outcome =
        run_program(command, {},
                    {{"RCLONE_CONFIG_S_TYPE", "smb"},
                     {"RCLONE_CONFIG_S_HOST", "127.0.0.1"},
                     {"RCLONE_CONFIG_S_USER", caller.name},
                     {"RCLONE_CONFIG_S_PASS", password.substr(0, password.find('\n'))}});
    account.after = Disk::now(kShareRoot);
    account.events = take_events();
    for (const std::string& complaint : complaints_about(account)) {
      ADD_FAILURE() << caller.name << " " << arguments[0] << ": " << complaint;
    }
    changed_ = !changes_between(account.before, account.after).empty();
    return outcome;
  }
  [[nodiscard]] bool changed() const { return changed_; }
  static bool same(const std::string& one, const std::string& other) {
    return run_program({"diff", "-r", one, other}).ok();
  }

 private:
  Folder map_ = matrix_map();
  bool changed_ = false;
};

const std::string kTeam = "s:tavrix/Shared/Team";

TEST_F(OtherClients, CopyATreeUpAndDown) {
  const Outcome up = rclone(kAnna, {"copy", "/scratch/up", kTeam + "/up"});
  EXPECT_TRUE(up.ok()) << up.err;
  EXPECT_TRUE(same("/scratch/up", full("Shared/Team/up")));
  const Outcome down = rclone(kBen, {"copy", kTeam + "/up", "/scratch/down"});
  EXPECT_TRUE(down.ok()) << down.err;
  EXPECT_TRUE(same("/scratch/up", "/scratch/down"));
  EXPECT_FALSE(changed());
}

TEST_F(OtherClients, SynchroniseAndRemoveATree) {
  EXPECT_TRUE(rclone(kAnna, {"copy", "/scratch/up", kTeam + "/up"}).ok());
  remove_all("/scratch/up/a/two");
  write_file("/scratch/up/one", "another one");
  EXPECT_TRUE(rclone(kAnna, {"sync", "/scratch/up", kTeam + "/up"}).ok());
  EXPECT_TRUE(same("/scratch/up", full("Shared/Team/up")));
  EXPECT_TRUE(rclone(kAnna, {"moveto", kTeam + "/up/one", kTeam + "/Docs/one"}).ok());
  EXPECT_TRUE(exists(full("Shared/Team/Docs/one")));
  EXPECT_TRUE(rclone(kAnna, {"purge", kTeam + "/up"}).ok());
  EXPECT_FALSE(exists(full("Shared/Team/up")));
}

TEST_F(OtherClients, OfWhoMayLessChangeNothing) {
  for (const Caller* caller : {&kBen, &kVera, &kNina, &kStan, &kStandardUser, &kGuest}) {
    for (const Lines& command :
         {Lines{"copy", "/scratch/up", kTeam + "/up"},
          Lines{"sync", "/scratch/up", kTeam + "/Docs"}, Lines{"deletefile", kTeam + "/file.txt"},
          Lines{"purge", kTeam + "/Docs"}, Lines{"mkdir", kTeam + "/New"},
          Lines{"moveto", kTeam + "/Docs", kTeam + "/Papers"}}) {
      EXPECT_FALSE(rclone(*caller, command).ok()) << caller->name << " " << command[0];
      EXPECT_FALSE(changed()) << caller->name << " " << command[0];
    }
  }
}

TEST_F(OtherClients, SeeWhatTheMapShows) {
  for (const Caller* caller : {&kBen, &kVera, &kNina, &kStan}) {
    const std::string seen = rclone(*caller, {"lsf", "-R", "s:tavrix"}).out;
    for (const char* hidden :
         {"Secret", "hidden", "Closed", "locked", "olga", "Other", "top.txt"}) {
      EXPECT_EQ(std::string::npos, seen.find(hidden)) << caller->name << ":\n" << seen;
    }
  }
  EXPECT_NE(std::string::npos, rclone(kBen, {"lsf", "-R", "s:tavrix"}).out.find("plan.txt"));
}

}  // namespace
}  // namespace tavrix::test
