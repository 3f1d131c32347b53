// SPDX-License-Identifier: LGPL-3.0-or-later
// Nodes of a cluster on one machine: each has a host name, System V objects, /etc/tavrix, /run,
// /var/log and a run of the machine of its own; all have the same /tavrix.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <csignal>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/become_program.hpp"
#include "tests/tools/operator.hpp"
#include "tools/cluster/lease.hpp"

namespace tavrix::test {

inline const std::string kShared = "/tavrix/.conf/cluster";

// The world of a node: a process that waits in its namespaces.
class Node {
 public:
  using Environment = std::vector<std::pair<std::string, std::string>>;
  static constexpr const char* kDaemon = TAVRIX_BUILD_DIR "/tools/tavrix-clusterd";
  static constexpr const char* kLoader = TAVRIX_BUILD_DIR "/tools/tavrix-loader";
  static constexpr const char* kCtl = TAVRIX_BUILD_DIR "/tools/tavrixctl";

  explicit Node(std::string name, const std::string& settings = "")
      : name_(std::move(name)), home_("/scratch/" + name_) {
    for (const char* folder : {"/etc", "/run", "/log", "/maps"}) make_dirs(home_ + folder);
    configure(settings);
    power_on();
  }
  [[nodiscard]] const std::string& name() const { return name_; }
  // A file of the node by its path there.
  [[nodiscard]] std::string in_etc(const std::string& file) const { return home_ + "/etc/" + file; }
  [[nodiscard]] std::string inbox() const { return home_ + "/maps"; }

  // `cluster` are lines of the section CLUSTER, and `sweeper` of SWEEPER.
  static std::string settings(const std::string& cluster, const std::string& sweeper = "") {
    return "[SWEEPER]\nstaging dir = /tavrix/.conf/staging\n" + sweeper +
           "[CLUSTER]\nenabled = yes\n" + cluster;
  }
  void configure(const std::string& cluster, const std::string& sweeper = "") const {
    write_file(in_etc("tavrix.conf"), settings(cluster, sweeper));
  }
  // The value of a setting that is in force.
  [[nodiscard]] int setting(const std::string& name) const {
    const auto shown =
        nlohmann::json::parse(run({kCtl, "--json", "config", "show"}).out, nullptr, false);
    for (const auto& one : shown.value("settings", nlohmann::json::array())) {
      if (one["name"] == name) return one["value"].get<int>();
    }
    return -1;
  }
  // The machine runs anew: what is not on its disk is gone.
  void power_on() {
    static int runs = 0;
    remove_all(home_ + "/run");
    make_dirs(home_ + "/run/tavrix");
    write_file(home_ + "/boot_id", name_ + "-" + std::to_string(++runs) + "\n");
    unlink((home_ + "/is_up").c_str());
    holder_ = std::make_unique<Child>([this] { hold(); });
    for (int i = 0; i < 2000 && !exists(home_ + "/is_up"); ++i) usleep(10'000);
    ASSERT_TRUE(exists(home_ + "/is_up"));
    ASSERT_EQ(0, run({kCtl, "config", "load", "/etc/tavrix/tavrix.conf"}).exit_code);
  }
  void power_off() {
    daemon_.reset();
    holder_.reset();
  }

  // A program on the node.
  [[nodiscard]] Outcome run(const std::vector<std::string>& words,
                            const Environment& environment = {}) const {
    return in_child([&] {
      enter();
      become_program(words, environment);
    });
  }
  [[nodiscard]] std::unique_ptr<Child> begin(const std::vector<std::string>& words,
                                             const Environment& environment = {}) const {
    return std::make_unique<Child>([=, this] {
      enter();
      become_program(words, environment);
    });
  }
  void start_daemon(const Environment& environment = {},
                    const std::vector<std::string>& options = {}) {
    std::vector<std::string> words = {kDaemon};
    words.insert(words.end(), options.begin(), options.end());
    daemon_ = begin(words, environment);
  }
  void kill_daemon() { daemon_.reset(); }
  [[nodiscard]] Child& daemon() { return *daemon_; }
  [[nodiscard]] Outcome once(const Environment& environment = {}) const {
    return run({kDaemon, "--once", "--wait", "20"}, environment);
  }
  [[nodiscard]] Outcome is_enabled() const { return run({kDaemon, "--is-enabled"}); }
  [[nodiscard]] Outcome join() const { return run({kDaemon, "--join", "--wait", "20"}); }

  // 0 without a map.
  [[nodiscard]] int folders() const {
    const auto document =
        nlohmann::json::parse(run({kCtl, "--json", "map", "info"}).out, nullptr, false);
    return document.is_object() && document.contains("map") ? document["map"]["folders"].get<int>()
                                                            : 0;
  }
  [[nodiscard]] int generation() const {
    const auto document =
        nlohmann::json::parse(run({kCtl, "--json", "map", "info"}).out, nullptr, false);
    return document.is_object() && document.contains("map")
               ? document["map"]["generation"].get<int>()
               : 0;
  }
  [[nodiscard]] nlohmann::json state() const {
    const std::string path = kShared + "/nodes/" + name_ + ".json";
    return exists(path) ? nlohmann::json::parse(read_file(path)) : nlohmann::json::object();
  }
  // True while this node may serve clients.
  [[nodiscard]] bool may_serve() const { return lease_left() > 0; }
  // In nanoseconds.
  [[nodiscard]] int64_t lease_left() const {
    return cluster::lease_end(home_ + "/run/tavrix/cluster.lease").value_or(0) -
           cluster::lease_clock();
  }

 private:
  static void bind(const std::string& source, const std::string& target) {
    if (mount(source.c_str(), target.c_str(), nullptr, MS_BIND, nullptr) != 0) {
      throw std::runtime_error("bind " + target);
    }
  }
  void hold() const {
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS | CLONE_NEWUTS) != 0)
      throw std::runtime_error("unshare");
    mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    sethostname(name_.c_str(), name_.size());
    bind(home_ + "/etc", "/etc/tavrix");
    bind(home_ + "/run", "/run");
    bind(home_ + "/log", "/var/log");
    bind(home_ + "/boot_id", "/proc/sys/kernel/random/boot_id");
    write_file(home_ + "/is_up", "");
    for (;;) pause();
  }
  // The root folder of a private world is a mount of its mount namespace.
  void enter() const {
    const std::string folder = "/proc/" + std::to_string(holder_->pid()) + "/ns/";
    const int names[] = {CLONE_NEWIPC, CLONE_NEWUTS, CLONE_NEWNS};
    const char* files[] = {"ipc", "uts", "mnt"};
    int opened[3];
    for (int i = 0; i < 3; ++i) opened[i] = open((folder + files[i]).c_str(), O_RDONLY | O_CLOEXEC);
    for (int i = 0; i < 3; ++i) {
      if (setns(opened[i], names[i]) != 0) throw std::runtime_error("setns");
    }
    if (chroot("/mnt") != 0 || chdir("/") != 0) throw std::runtime_error("chroot");
  }

  std::string name_, home_;
  std::unique_ptr<Child> holder_, daemon_;
};

class Cluster : public Operator {
 protected:
  static constexpr int kHaste = 10;  // a look takes a tenth of its time

  void SetUp() override {
    Operator::SetUp();
    make_dirs("/tavrix/.conf");
  }
  void add(const std::string& name, const std::string& settings = "") {
    nodes_.push_back(std::make_unique<Node>(name, settings));
  }
  [[nodiscard]] Node& node(std::size_t index) const { return *nodes_.at(index); }

  static Folder wide(uint32_t folders) {
    Folder root{.name = "/", .groups = {{2000, 1}}};
    for (uint32_t i = 1; i < folders; ++i)
      root.children.push_back({.name = "f" + std::to_string(i)});
    return root;
  }
  // Puts a pair into a folder.
  static void put_pair(const std::string& folder, uint32_t folders) {
    write_json_pair(wide(folders), {.generation = folders});
    make_dirs(folder);
    run_program({"mv", "/scratch/data.json", "/scratch/size.json", folder});
  }
  // Puts files into a folder that go to all nodes with the next pair. `groups` makes one group list
  // map differ from another.
  static void put_companions(const std::string& folder, const std::string& settings, int groups) {
    make_dirs(folder);
    write_file(folder + "/tavrix.conf", settings);
    write_file("/scratch/groups.json",
               R"({"reserved": {}, "users": {"anna": [)" + std::to_string(groups) + "]}}");
    ASSERT_EQ(
        0,
        ctl({"groupmap", "build", "/scratch/groups.json", "-o", folder + "/groupmap"}).exit_code);
  }
  // The loader of a node takes a pair and puts it up for all nodes.
  static void hand_over(const Node& node, uint32_t folders) {
    put_pair(node.inbox(), folders);
    const Outcome outcome = load(node);
    ASSERT_EQ(0, outcome.exit_code) << outcome.err;
  }
  static Outcome load(const Node& node, const Environment& environment = {}) {
    return node.run({Node::kLoader, "--once", "--dir", node.inbox()}, environment);
  }
  void start_daemons(const std::vector<std::string>& options = {}) {
    for (const auto& one : nodes_) one->start_daemon(in_haste(kHaste), options);
  }
  // Waits until every node has the map with so many folders.
  [[nodiscard]] bool all_have(int folders) const {
    return comes([&] {
      for (const auto& one : nodes_) {
        if (one->folders() != folders) return false;
      }
      return true;
    });
  }
  static nlohmann::json committed() {
    const std::string path = kShared + "/committed.json";
    return exists(path) ? nlohmann::json::parse(read_file(path)) : nlohmann::json{{"number", 0}};
  }
  // The numbers of the folders of maps.
  static std::vector<std::string> proposals() {
    std::vector<std::string> names;
    if (!exists(kShared + "/maps")) return names;
    for (const std::string& name : list(kShared + "/maps")) {
      if (!name.starts_with(".")) names.push_back(name);
    }
    return names;
  }
  std::vector<std::unique_ptr<Node>> nodes_;
};

}  // namespace tavrix::test
