// SPDX-License-Identifier: LGPL-3.0-or-later
// Nodes of a cluster on one machine: this process is the node "alpha", and others have System V
// objects, a host name, a run of the machine and an /etc/tavrix of their own. All share /tavrix and
// /scratch.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <functional>
#include <memory>
#include <string>

#include "internal/scoped.hpp"
#include "tests/tools/sweeper.hpp"

namespace tavrix::test {

// A process that keeps the world of another node until it is gone.
class OtherNode {
 public:
  explicit OtherNode(const std::string& name)
      : holder_([name] {
          if (!enter(name)) _exit(1);
          write_file("/scratch/node." + name, "");
          for (;;) pause();
        }) {
    for (int i = 0; i < 2000 && !exists("/scratch/node." + name); ++i) usleep(10'000);
    EXPECT_TRUE(exists("/scratch/node." + name)) << name << " did not start";
  }
  // Runs the body on that node, in a process of its own.
  [[nodiscard]] Outcome run(const std::function<void()>& body) const {
    return in_child([&] {
      join();
      body();
    });
  }
  [[nodiscard]] std::unique_ptr<Child> start(const std::function<void()>& body) const {
    return std::make_unique<Child>([this, body] {
      join();
      body();
    });
  }

 private:
  static bool enter(const std::string& name) {
    // Another number in the place of the first letters makes another run of the machine.
    std::string boot = read_file("/proc/sys/kernel/random/boot_id");
    boot.replace(0, 8, name == "beta" ? "0000beef" : "0000feed");
    write_file("/scratch/boot." + name, boot);
    return unshare(CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWNS) == 0 &&
           sethostname(name.c_str(), name.size()) == 0 &&
           mount("tmpfs", "/etc/tavrix", "tmpfs", 0, "mode=0755") == 0 &&
           mount(("/scratch/boot." + name).c_str(), "/proc/sys/kernel/random/boot_id", nullptr,
                 MS_BIND, nullptr) == 0;
  }
  void join() const {
    for (const char* kind : {"ipc", "uts", "mnt"}) {
      const std::string path = "/proc/" + std::to_string(holder_.pid()) + "/ns/" + kind;
      namespaces_.emplace_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    const Fd root(open(("/proc/" + std::to_string(holder_.pid()) + "/root").c_str(),
                       O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (const Fd& space : namespaces_) ASSERT_EQ(0, setns(space.get(), 0)) << strerror(errno);
    ASSERT_EQ(0, fchdir(root.get()));
    ASSERT_EQ(0, chroot("."));
  }

  Child holder_;
  mutable std::vector<Fd> namespaces_;  // of the process that joins
};

class Nodes : public SweeperWorld {
 protected:
  static constexpr const char* kAuditing = "/scratch/auditing";
  static constexpr const char* kCluster = "/tavrix/.conf/cluster";
  static constexpr const char* kNotes = "/tavrix/.conf/changing";

  void SetUp() override {
    SweeperWorld::SetUp();
    ASSERT_EQ(0, unshare(CLONE_NEWUTS));
    name_host("alpha");
    make_dirs(kAuditing);
  }
  static void name_host(const std::string& name) {
    ASSERT_EQ(0, sethostname(name.c_str(), name.size()));
  }
  static std::string of_cluster(const std::string& more = "") {
    return "auditing dir = /scratch/auditing\n" + more + "[CLUSTER]\nenabled = yes\n";
  }
  // This machine becomes a node.
  static void join_cluster(const std::string& more_sections = "") {
    settings(65536, 1, of_cluster() + more_sections);
    use_settings();
    write_file("/etc/tavrix/tavrix.conf", read_file(kConf));
  }
  static std::string setting(const std::string& name) {
    const auto document = json({"config", "show"});
    for (const auto& entry : document["settings"]) {
      if (entry["name"] == name) return entry["value"];
    }
    return {};
  }
};

}  // namespace tavrix::test
