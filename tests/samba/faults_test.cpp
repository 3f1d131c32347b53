// SPDX-License-Identifier: LGPL-3.0-or-later
// Each call of the module fails once, one after the other, while clients work. Nothing forbidden
// gets through, nothing changes without an event, and the server lives on.

#include <algorithm>
#include <filesystem>
#include <map>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {
namespace {

constexpr int kMostFaults = 1000;

// The name of everything in the tree, with its content or its kind.
std::map<std::string, std::string> tree_now() {
  std::map<std::string, std::string> tree;
  for (const auto& entry : std::filesystem::recursive_directory_iterator("/tavrix")) {
    const std::string name = entry.path().string().substr(8);
    if (name.starts_with(".conf")) continue;
    tree[name] = entry.is_directory() ? "(folder)" : read_file(entry.path());
  }
  return tree;
}

class Faults : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    const std::string faulty = "tavrix_faulty";
    bash("cp " TAVRIX_BUILD_DIR "/samba/tavrix_faulty.so $samba_modules/vfs/");
    configure({}, faulty);
    bash(
        "sed -i 's|map to guest = never|map to guest = never\\n  tavrix:fault file = "
        "/scratch/fault|' /scratch/samba/smb.conf");
    write_file("/scratch/data.txt", "some data\n");
    make_file("Shared/Closed/secret.txt");
    bash("chmod -R a+rwX /tavrix");  // the disk refuses nobody, only the module does
    start_smbd();
  }
  // Runs the session with the n-th call failing; false when there is no such call.
  static bool is_provoked(int n, const std::function<void()>& session) {
    write_file("/scratch/fault", std::to_string(n));
    remove_all("/scratch/fault.hit");
    session();
    return exists("/scratch/fault.hit");
  }
  static std::string provoked() { return read_file("/scratch/fault.hit"); }
  static void expect_a_sound_server(int n) {
    const std::string log = smbd_log();
    for (const char* trouble : {"PANIC", "INTERNAL ERROR", "identity left", "Assertion"}) {
      EXPECT_EQ(std::string::npos, log.find(trouble)) << n << " " << provoked() << log;
    }
  }
  template <typename Session>
  static int walk(Session session) {
    int n = 1;
    while (n < kMostFaults && is_provoked(n, session) && !HasFailure()) {
      expect_a_sound_server(n);
      ++n;
    }
    EXPECT_LT(n, kMostFaults);
    return n - 1;
  }
  // The names of a tree after the events were applied to it.
  static std::set<std::string> replay(const Lines& told, std::set<std::string> names) {
    for (const std::string& line : told) {
      std::istringstream in(line);
      std::string type, path, arrow, target;
      in >> type >> path >> arrow >> target;
      if (type == "MKDIR" || type == "CREATE") names.insert(path);
      if (type == "UNLINK" || type == "RMDIR") names.erase(path);
      if (type != "RENAME") continue;
      std::set<std::string> moved;
      for (const std::string& old : names) {
        const bool moves = old == path || old.starts_with(path + "/");
        moved.insert(moves ? target + old.substr(path.size()) : old);
      }
      names = std::move(moved);
    }
    return names;
  }
};

TEST_F(Faults, LetNothingThroughThatIsForbidden) {
  const auto before = tree_now();
  const int faults = walk([&] {
    const std::string said =
        smb("Ben",
            "ls Shared\\*; ls Shared\\Closed\\*; get Shared\\Closed\\secret.txt /scratch/stolen; "
            "put /scratch/data.txt Shared\\Team\\new.txt; "
            "put /scratch/data.txt Shared\\Team\\report.txt; mkdir Shared\\Team\\New; "
            "rename Shared\\Team\\Docs Shared\\Team\\Books; rm Shared\\Team\\report.txt; "
            "rmdir Shared\\Team\\NotInMap; setmode Shared\\Team\\report.txt +h; "
            "ls Private\\*; get Private\\pat\\diary.txt /scratch/stolen; "
            "allinfo Shared\\Closed\\secret.txt");
    EXPECT_EQ(before, tree_now()) << provoked();
    EXPECT_EQ(Lines{}, new_events()) << provoked();
    EXPECT_FALSE(exists("/scratch/stolen")) << provoked();
    EXPECT_EQ(std::string::npos, said.find("  Closed ")) << provoked() << said;
    EXPECT_EQ(std::string::npos, said.find("  olga ")) << provoked() << said;
  });
  EXPECT_GT(faults, 20);
}

TEST_F(Faults, ChangeNothingWithoutAnEvent) {
  const int faults = walk([&] {
    const auto before = tree_now();
    std::set<std::string> names;
    for (const auto& [name, content] : before) names.insert(name);
    const std::string said =
        smb("Anna",
            "cd Shared\\Team; put /scratch/data.txt a; mkdir B; rename a B\\a; "
            "put /scratch/data.txt report.txt; rm B\\a; rmdir B; ls; get report.txt /scratch/got");
    const auto after = tree_now();
    const Lines told = new_events();
    const bool is_told = std::ranges::any_of(
        told, [](const std::string& line) { return line == "OPEN Shared/Team/report.txt"; });
    if (before.at("Shared/Team/report.txt") != after.at("Shared/Team/report.txt")) {
      EXPECT_TRUE(is_told) << provoked() << said;
    }
    std::set<std::string> now;
    for (const auto& [name, content] : after) now.insert(name);
    EXPECT_EQ(now, replay(told, names)) << provoked() << said;
    remove_all(full("Shared/Team/a"));
    remove_all(full("Shared/Team/B"));
    write_file(full("Shared/Team/report.txt"), "content\n");
  });
  EXPECT_GT(faults, 20);
}

}  // namespace
}  // namespace tavrix::test
