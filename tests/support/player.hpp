// SPDX-License-Identifier: LGPL-3.0-or-later
// A client that works at random through the hooks, against a model of the tree and of the policy:
// every verdict and every event is one that the model expects.
#pragma once

#include <map>
#include <ostream>
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

// The ways in which a module may use the library. They change no verdict and no event.
struct Way {
  const char* name = "Plain";
  bool has_session = false;      // the thread's session is open, and idle now and then
  bool asks_in_batches = false;  // a listing asks about many entries in one call
};
inline std::ostream& operator<<(std::ostream& out, const Way& way) { return out << way.name; }
inline const std::vector<Way> kWays = {
    {}, {"Session", true, false}, {"Batches", false, true}, {"BatchesInASession", true, true}};

class Player {
 public:
  Player(const Caller& caller, uint32_t seed, const Way& way = {});

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
  void check_one_by_one(const std::string& folder, const std::vector<std::string>& names);
  void check_in_batch(const std::string& folder, std::vector<std::string> names);
  void set_times();

  Caller caller_;
  Session session_;
  std::mt19937 random_;
  Way way_;
  std::mt19937 random_in_way_{1};  // of its own, so that the operations are those of every way
  std::string root_;
  std::map<std::string, bool> tree_;  // full path: is it a folder
  std::vector<std::string> expected_;
};

}  // namespace tavrix::test
