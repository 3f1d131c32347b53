// SPDX-License-Identifier: LGPL-3.0-or-later
// The disk as a power cut may leave it, from the trace that tests/support/faults.cpp writes.
#pragma once

#include <sys/stat.h>
#include <algorithm>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/files.hpp"

namespace tavrix::test {

struct Operation {
  std::string what, first, second, bytes;
};

inline std::string from_hex(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

inline std::vector<Operation> read_trace(const std::string& path) {
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

inline std::string folder_of(const std::string& path) { return path.substr(0, path.rfind('/')); }

using State = std::map<std::string, std::string>;  // path -> content

inline std::string text_of(const State& state) {
  std::string text;
  for (const auto& [path, bytes] : state) {
    text += path + " " + std::to_string(bytes.size()) + " bytes\n";
  }
  return text;
}

// A disk that knows which of its content is durable, and which a power cut may take away.
class Disk {
 public:
  struct File {
    std::string kept, written;  // durable since the last sync; seen by readers
  };
  using Names = std::map<std::string, std::size_t>;  // path -> file

  void put(const std::string& path, const std::string& bytes) {
    files_.push_back({bytes, bytes});
    kept_[path] = now_[path] = files_.size() - 1;
  }

  void put_folder(const std::string& folder) {
    for (const std::string& name : list(folder)) {
      struct stat info {};
      const std::string path = folder + "/" + name;
      if (stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode)) put(path, read_file(path));
    }
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

  // Adds the states that a cut at this moment may leave. `in_order`: metadata reaches the disk in
  // its order.
  void add_states(bool in_order, std::mt19937& random, std::set<State>& states) const {
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
      // A folder is renamed with everything in it.
      Names moved;
      for (const auto& [path, file] : names) {
        const bool inside = path.rfind(first + "/", 0) == 0;
        moved[inside ? second + path.substr(first.size()) : path] = file;
      }
      names = moved;
    }
  }

  // Makes a file's content, or the names in a folder, durable.
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

  // `content`: of the bytes that were not synced, 0 has none, 1 half, 2 all.
  [[nodiscard]] State state_of(const Names& names, int content) const {
    State state;
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

}  // namespace tavrix::test
