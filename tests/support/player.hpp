// SPDX-License-Identifier: LGPL-3.0-or-later
// A client that works at random through the hooks, against a model of the tree and of the policy:
// every verdict and every event is one that the model expects.
#pragma once

#include <map>
#include <random>
#include <string>
#include <vector>

#include "tests/support/session.hpp"

namespace tavrix::test {

// The four areas of a player's folder, by the mask of its user.
struct Area {
  const char* name;
  uint32_t mask;
};
inline const std::vector<Area> kAreas = {{"full", 7}, {"write", 3}, {"read", 1}, {"none", 0}};

class Player {
 public:
  Player(const Caller& caller, uint32_t seed);

  // A player's folder of the map, "Work<uid>", and the same on the disk.
  static Folder folder_of(const Caller& caller);
  static void make_folders(const Caller& caller);

  void play(int operations);
  // The events of this player that the staging buffer and the dump files must hold, in order.
  [[nodiscard]] const std::vector<std::string>& expected_events() const { return expected_; }
  // Objects whose state on the disk differs from the model.
  [[nodiscard]] std::vector<std::string> differences() const;

 private:
  struct Masks {
    uint32_t self, parent;
  };
  std::string some_area();
  std::string some_name();      // full path of an object that may exist
  std::string some_new_name();  // full path of one that does not
  [[nodiscard]] e_file_type type_of(const std::string& path) const;
  [[nodiscard]] bool is_below_a_file(const std::string& path) const;
  [[nodiscard]] Masks masks_of(const std::string& path) const;
  [[nodiscard]] bool grants(e_fsop_type op, const std::string& path) const;
  static std::string relative(const std::string& path);

  // Compares a hook's answer with the model; after a grant does the operation as root.
  template <typename Hook, typename Operation>
  bool run(bool granted, int refusal, Hook hook, Operation operation);
  void expect(const std::string& event) { expected_.push_back(event); }
  void expect_stamp(const std::string& path);

  void make_dir();
  void create_folder();
  void create_file();
  void open_and_close();
  void unlink_file();
  void remove_dir();
  void move();
  void look();
  void list_folder();
  void set_times();

  Caller caller_;
  Session session_;
  std::mt19937 random_;
  std::string root_;
  std::map<std::string, bool> tree_;  // full path: is it a folder
  std::vector<std::string> expected_;
};

}  // namespace tavrix::test
