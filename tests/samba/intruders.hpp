// SPDX-License-Identifier: LGPL-3.0-or-later
// Clients that try only what they may not do (see intruder.py): who they are, the part of the tree
// that only they go for, and what must be true when they are done.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/samba/appliance.hpp"

namespace tavrix::test {

struct Intruder {
  std::string user, password;
  // Names that the map does not hide from them; with a slash, everything below too.
  std::vector<std::string> may_see;
};
// A reader, a viewer, a stranger with a folder of his own, a standard user, and a guest.
std::vector<Intruder> intruders();

// The share's map with the folders that intruders go for.
Folder map_with_vault();
// Those folders and files, with attributes and stamps.
void make_vault();
// All that a client could change there: type, mode, owner, size, links, times, attributes, content.
// Reading may change the time of access.
std::map<std::string, std::string> vault_snapshot();
void expect_same_vault(const std::map<std::string, std::string>& before);
bool is_of_the_vault(const std::string& event);

// Makes the server of the next start take clients without an account for guests.
void let_guests_in();

// Tries that often, 0: until /scratch/stop is there, by both clients.
void intrude(const Intruder& intruder, unsigned seed, int tries);
// Names that intruders were told although the map hides them from them.
std::vector<std::string> told_in_spite_of_the_map();

}  // namespace tavrix::test
