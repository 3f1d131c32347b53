// SPDX-License-Identifier: LGPL-3.0-or-later
// Many clients for a long time, while maps, groups and server processes change.

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <filesystem>
#include <map>
#include <memory>
#include <random>

#include "tests/samba/intruders.hpp"
#include "tests/samba/resources.hpp"

namespace tavrix::test {
namespace {

constexpr int kClients = 32;
constexpr std::size_t kFewestEvents = 1000;  // a slow machine needs longer for them
constexpr long kGrowth = 4096;               // kB that a process may keep of what it needed once

struct Weather {
  const char* name;
  const char* case_sensitive;
  int seconds;
  friend void PrintTo(const Weather& weather, std::ostream* out) { *out << weather.name; }
};

class Storm : public Appliance, public testing::WithParamInterface<Weather> {
 protected:
  static bool case_matters() { return GetParam().case_sensitive == std::string("yes"); }
  static std::string name_of(int client) { return "c" + std::to_string(client); }

  // Random work in the client's own folder.
  static std::string commands_of(int client, std::mt19937& random) {
    std::string commands = "cd Shared\\Team\\" + name_of(client);
    const auto some = [&random](const char* kind) {
      std::string name = kind + std::to_string(random() % 3) + (random() % 3 == 0 ? "" : "x");
      if (!case_matters() && random() % 3 == 0) name.front() = static_cast<char>(name.front() - 32);
      return name;
    };
    const auto path = [&](const char* kind) {
      return (random() % 2 == 0 ? some("d") + "\\" : "") + some(kind);
    };
    for (int i = 0; i < 12; ++i) {
      switch (random() % 9) {
        case 0:
          commands += "; mkdir " + path("d");
          break;
        case 1:
          commands += "; put /scratch/data.txt " + path("f");
          break;
        case 2:
          commands += "; put /scratch/data.txt " + path("f");
          break;
        case 3:
          commands += "; rm " + path("f");
          break;
        case 4:
          commands += "; rmdir " + path("d");
          break;
        case 5:
          commands += "; rename " + path("f") + " " + path("f");
          break;
        case 6:
          commands += "; rename " + some("d") + " " + some("d");
          break;
        case 7:
          commands += "; get " + path("f") + " /dev/null";
          break;
        default:
          commands += "; ls";
          break;
      }
    }
    return commands;
  }
  static void work(int client) {
    std::mt19937 random(static_cast<unsigned>(client) + 1);
    const std::string user = client % 3 == 0 ? "Administrator" : "Anna";
    while (!exists("/scratch/stop")) {
      const std::string command = "smbclient -s /scratch/samba/smb.conf //127.0.0.1/tavrix -U " +
                                  user + "%" + user + " -c '" + commands_of(client, random) + "'";
      // One client in four is killed in the middle of what it does.
      const std::string limit = random() % 4 == 0 ? "timeout -s KILL 0.1 " : "timeout 60 ";
      run_program({"bash", "-c", limit + command});
    }
  }
  // Work in a folder that only administrators see, so that intruders would get notices of it.
  static void work_in_secret() {
    for (int round = 0; !exists("/scratch/stop"); ++round) {
      const std::string name = "hidden" + std::to_string(round % 7);
      smb(kAdministrator, "cd Shared\\Team\\Secret; put /scratch/data.txt " + name + "; rename " +
                              name + " renamed_" + name + "; rm renamed_" + name);
    }
  }
  // The tree that results from the events alone.
  static std::map<std::string, bool> told_tree(const std::string& below) {
    std::map<std::string, bool> tree;
    for (const std::string& line : event_lines()) {
      std::istringstream in(line);
      std::string type, kind, path, arrow, target;
      in >> type >> kind >> path >> arrow >> target;
      if (!path.starts_with(below)) continue;
      if (type == "MKDIR" || type == "CREATE") tree[path] = kind == "DIR";
      if (type == "UNLINK" || type == "RMDIR") tree.erase(path);
      if (type != "RENAME") continue;
      std::map<std::string, bool> moved;
      for (const auto& [old, is_dir] : tree) {
        const bool moves = old == path || old.starts_with(path + "/");
        if (!moves && old != target) moved.emplace(old, is_dir);
        if (moves) moved[target + old.substr(path.size())] = is_dir;
      }
      tree = std::move(moved);
    }
    return tree;
  }
  static std::map<std::string, bool> tree_on_disk(const std::string& below) {
    std::map<std::string, bool> tree;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(below)) {
      tree[entry.path()] = entry.is_directory();
    }
    return tree;
  }
  static pid_t smbd() { return std::stoi(read_file("/scratch/samba/smbd.pid")); }

  // A connection that stays open through the storm and works in it. Afterwards its process holds
  // what it held before.
  class Witness {
   public:
    Witness() : client_("Anna") {
      work();
      process_ = Client::servers().at(0);
      EXPECT_TRUE(comes_to_rest(process_));
      descriptors_ = descriptors_of(process_);
      memory_ = status_of(process_, "RssAnon");
    }
    void work() {
      client_.say("cd \\Shared\\Team\\witness");
      client_.say("put /scratch/data.txt f; get f /dev/null; rename f g; ls; rm g");
      client_.say("ls ..\\*");
    }
    void expect_what_it_held() {
      work();
      EXPECT_TRUE(comes_to_rest(process_));
      EXPECT_TRUE(comes([this] { return descriptors_of(process_) == descriptors_; }))
          << descriptors_of(process_) << " descriptors, before " << descriptors_;
      EXPECT_LE(status_of(process_, "RssAnon"), memory_ + kGrowth) << "before: " << memory_;
    }

   private:
    Client client_;
    pid_t process_ = 0;
    std::size_t descriptors_ = 0;
    long memory_ = 0;
  };
  static void wait_for_servers_to_go() {
    for (int waited = 0; !Client::servers().empty() && waited < 200; ++waited) usleep(50000);
    EXPECT_TRUE(Client::servers().empty());
  }
};

TEST_P(Storm, EventsEqualTheDiskAndNothingIsLeft) {
  configure({std::string("case sensitive = ") + GetParam().case_sensitive});
  write_file("/scratch/data.txt", "some data\n");
  for (int client = 0; client < kClients; ++client) {
    make_folder("Shared/Team/" + name_of(client), kAnna.uid);
  }
  publish_map(map_with_vault());
  make_vault();
  let_guests_in();
  start_smbd();
  smb("Anna", "ls");
  wait_for_servers_to_go();
  const int segments = segments_in_use();
  const std::size_t descriptors = descriptors_of(smbd());
  make_folder("Shared/Team/witness", kAnna.uid);
  auto witness = std::make_unique<Witness>();
  const auto vault = vault_snapshot();
  {
    Child loader([] {
      while (!exists("/scratch/stop")) {
        publish(build_image(map_with_vault(), {}));
        const timespec times[2] = {{0, UTIME_NOW}, {0, UTIME_NOW}};
        utimensat(AT_FDCWD, "/etc/tavrix/permission_refresh", times, 0);
        utimensat(AT_FDCWD, "/etc/tavrix/groupmap_refresh", times, 0);
        sleep(1);
      }
    });
    Child sweeper([] {
      while (!exists("/scratch/stop")) {
        ASSERT_EQ(1, flush_staging_buffer(FB_CTX_SWPR));
        usleep(100000);
      }
    });
    std::vector<std::unique_ptr<Child>> clients;
    for (int client = 0; client < kClients; ++client) {
      clients.push_back(std::make_unique<Child>([client] { work(client); }));
    }
    for (const Intruder& intruder : intruders()) {
      clients.push_back(std::make_unique<Child>([&] { intrude(intruder, kClients, 0); }));
    }
    clients.push_back(std::make_unique<Child>(work_in_secret));
    const time_t end = time(nullptr) + GetParam().seconds;
    while (time(nullptr) < end || events_at_a_glance() <= kFewestEvents) witness->work();
    write_file("/scratch/stop", "");
    for (auto& client : clients) EXPECT_TRUE(client->wait().ok());
    EXPECT_TRUE(loader.wait().ok());
    EXPECT_TRUE(sweeper.wait().ok());
  }
  witness->expect_what_it_held();
  witness.reset();
  wait_for_servers_to_go();
  EXPECT_EQ("", trouble_of_smbd());
  EXPECT_FALSE(exists("/tavrix/.conf/sync.off"));
  std::size_t compared = 0;
  for (int client = 0; client < kClients; ++client) {
    const std::string folder = full("Shared/Team/" + name_of(client));
    const auto told = told_tree(folder + "/");
    EXPECT_TRUE(tree_on_disk(folder) == told) << folder;
    compared += told.size();
  }
  EXPECT_GT(compared, static_cast<std::size_t>(kClients));
  expect_same_vault(vault);
  EXPECT_EQ(Lines{}, told_in_spite_of_the_map());
  for (const std::string& line : event_lines()) EXPECT_FALSE(is_of_the_vault(line)) << line;
  EXPECT_GT(event_lines().size(), kFewestEvents);
  EXPECT_EQ(segments, segments_in_use());
  EXPECT_GE(descriptors, descriptors_of(smbd()));
  EXPECT_EQ(0, attach_count(ftok("/dev/null", 1234)));
}

// On a share that ignores case the server searches folders for the name in other letters, and opens
// what it finds.
constexpr Weather kWeathers[] = {{"CaseMatters", "yes", 120}, {"CaseDoesNotMatter", "no", 60}};
INSTANTIATE_TEST_SUITE_P(With, Storm, testing::ValuesIn(kWeathers),
                         [](const auto& instance) { return instance.param.name; });

}  // namespace
}  // namespace tavrix::test
