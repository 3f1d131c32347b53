// SPDX-License-Identifier: LGPL-3.0-or-later
// A power cut at any moment of an import: of every state that a file system may leave, the loader's
// next start makes the new map current.

#include <sys/shm.h>
#include <cstdio>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>

#include "perm_map.h"
#include "read_perms.h"
#include "tests/tools/loader.hpp"

namespace tavrix::test {
namespace {

struct Operation {
  std::string what, first, second, bytes;
};

std::string from_hex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::vector<Operation> read_trace(const std::string& path) {
  std::vector<Operation> operations;
  for (const std::string& line : lines_of(path)) {
    std::istringstream fields(line);
    Operation operation;
    std::string hex;
    std::getline(fields, operation.what, '\t');
    std::getline(fields, operation.first, '\t');
    std::getline(fields, operation.second, '\t');
    std::getline(fields, hex);
    operation.bytes = from_hex(hex);
    operations.push_back(operation);
  }
  return operations;
}

std::string folder_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

// A disk that remembers what is on it for good, and what a cut may take away.
class Disk {
 public:
  struct File {
    std::string kept, written;  // what a sync has made durable, and what readers see
  };
  using Names = std::map<std::string, std::size_t>;  // path -> file

  void put(const std::string& path, const std::string& bytes) {
    files_.push_back({bytes, bytes});
    kept_[path] = now_[path] = files_.size() - 1;
  }

  void apply(const Operation& operation) {
    if (operation.what == "create") {
      files_.push_back({});
      change(operation, files_.size() - 1);
    } else if (operation.what == "truncate") {
      files_[now_.at(operation.first)].written.clear();
    } else if (operation.what == "write") {
      if (now_.count(operation.first) != 0) {
        files_[now_.at(operation.first)].written += operation.bytes;
      }
    } else if (operation.what == "sync") {
      sync(operation.first);
    } else {
      change(operation, 0);
    }
  }

  // The states that a cut now may leave. `in_order`: metadata reaches the disk in its order.
  void add_states(bool in_order, std::mt19937& random,
                  std::set<std::map<std::string, std::string>>& states) const {
    const std::size_t count = pending_.size();
    const std::size_t subsets =
        in_order ? count + 1 : std::min<std::size_t>(1U << std::min<std::size_t>(count, 10), 64);
    for (std::size_t subset = 0; subset < subsets; ++subset) {
      Names names = kept_;
      const bool exhaustive = count <= 6;
      const std::size_t mask = exhaustive ? subset : random();
      for (std::size_t i = 0; i < count; ++i) {
        const bool reached = in_order ? i < subset : (mask >> i & 1U) != 0;
        if (reached) change_names(names, pending_[i]);
      }
      for (const int content : {0, 1, 2}) states.insert(state_of(names, content));
    }
  }

 private:
  struct Change {
    Operation operation;
    std::size_t file = 0;
  };

  void change(const Operation& operation, std::size_t file) {
    pending_.push_back({operation, file});
    change_names(now_, pending_.back());
  }

  static void change_names(Names& names, const Change& change) {
    const auto& [what, first, second, bytes] = change.operation;
    if (what == "create") {
      names[first] = change.file;
    } else if (what == "unlink") {
      names.erase(first);
    } else if (names.count(first) != 0) {
      const std::size_t file = names.at(first);
      if (what == "rename") names.erase(first);
      names[second] = file;
    } else if (what == "rename") {
      // A folder with what is in it.
      Names moved;
      for (const auto& [path, file] : names) {
        const bool inside = path.rfind(first + "/", 0) == 0;
        moved[inside ? second + path.substr(first.size()) : path] = file;
      }
      names = moved;
    }
  }

  // A file's content, or the names in a folder.
  void sync(const std::string& path) {
    if (now_.count(path) != 0) {
      File& file = files_[now_.at(path)];
      file.kept = file.written;
      return;
    }
    std::vector<Change> rest;
    for (const Change& change : pending_) {
      const bool is_here =
          folder_of(change.operation.first) == path || folder_of(change.operation.second) == path;
      if (is_here) {
        change_names(kept_, change);
      } else {
        rest.push_back(change);
      }
    }
    pending_ = rest;
  }

  // 0: nothing that was not synced; 1: half of it; 2: all of it.
  [[nodiscard]] std::map<std::string, std::string> state_of(const Names& names, int content) const {
    std::map<std::string, std::string> state;
    for (const auto& [path, index] : names) {
      const File& file = files_[index];
      std::string bytes = file.written;
      if (file.kept != file.written && content == 0) bytes = file.kept;
      if (file.kept != file.written && content == 1) bytes.resize(bytes.size() / 2);
      state[path] = bytes;
    }
    return state;
  }

  std::vector<File> files_;
  Names kept_, now_;
  std::vector<Change> pending_;
};

class PowerCut : public Loader {
 protected:
  using State = std::map<std::string, std::string>;

  static void remember(Disk& disk, const std::string& folder) {
    for (const std::string& name : list(folder)) {
      struct stat info {};
      const std::string path = folder + "/" + name;
      if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) disk.put(path, read_file(path));
    }
  }

  // The states that an import of the waiting pair may leave behind.
  static std::set<State> states_of_an_import() {
    Disk disk;
    for (const std::string& folder : {std::string("/etc/tavrix"), kInbox}) remember(disk, folder);
    Environment environment = with_faults("");
    environment.emplace_back("TAVRIX_TRACE", "/scratch/trace");
    EXPECT_EQ(0, once(environment).exit_code);
    std::set<State> states;
    std::mt19937 random(7);
    for (const bool in_order : {true, false}) disk.add_states(in_order, random, states);
    for (const Operation& operation : read_trace("/scratch/trace")) {
      disk.apply(operation);
      for (const bool in_order : {true, false}) disk.add_states(in_order, random, states);
    }
    return states;
  }

  // As after a boot: what was on the disk, and nothing in memory but the settings.
  static void boot(const State& state) {
    ctl({"map", "remove"});
    for (const std::string& folder : {std::string("/etc/tavrix"), kInbox}) {
      remove_all(folder);
      make_dirs(folder);
    }
    for (const auto& [path, bytes] : state) {
      make_dirs(folder_of(path));
      write_file(path, bytes);
    }
  }

  static uint32_t folders_for_a_reader() {
    void* address = init_perm_map_semaphore() == 0 ? get_perm_map_addr() : nullptr;
    if (address == nullptr) return 0;
    const uint32_t folders = static_cast<const tavrix_be_header*>(address)->total_fselems;
    put_perm_map_addr(address);
    return folders;
  }

  static std::string text_of(const State& state) {
    std::string text;
    for (const auto& [path, bytes] : state) {
      text += path + " " + std::to_string(bytes.size()) + " bytes\n";
    }
    return text;
  }

  static void expect_the_new_map_after_each(const std::set<State>& states, uint32_t folders) {
    EXPECT_GT(states.size(), 20U);
    for (const State& state : states) {
      boot(state);
      const Outcome outcome = once();
      ASSERT_EQ(folders, folders_for_a_reader()) << text_of(state) << outcome.err;
      ASSERT_FALSE(exists(kCopy + ".before")) << text_of(state);
      ASSERT_TRUE(refused().empty()) << text_of(state) << outcome.err;
    }
  }
};

TEST_F(PowerCut, AFirstImportIsThereAfterEveryCut) {
  hand_over(wide(7));
  expect_the_new_map_after_each(states_of_an_import(), 7);
}

TEST_F(PowerCut, ALaterImportIsThereAfterEveryCut) {
  hand_over(team());
  ASSERT_EQ(0, once().exit_code);
  hand_over(wide(7));
  expect_the_new_map_after_each(states_of_an_import(), 7);
}

}  // namespace
}  // namespace tavrix::test
