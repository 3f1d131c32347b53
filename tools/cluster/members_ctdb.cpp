// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/members_ctdb.hpp"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <sstream>

#include "internal/scoped.hpp"

namespace tavrix::cluster {
namespace {

// "|a|b|" has the cells a and b.
std::vector<std::string> cells_of(const std::string& line) {
  std::vector<std::string> cells;
  std::istringstream in(line);
  std::string cell;
  std::getline(in, cell, '|');
  while (std::getline(in, cell, '|')) cells.push_back(cell);
  return cells;
}

std::vector<std::vector<std::string>> table_in(std::string_view text) {
  std::vector<std::vector<std::string>> rows;
  std::istringstream in{std::string(text)};
  for (std::string line; std::getline(in, line);) {
    if (line.starts_with('|')) rows.push_back(cells_of(line));
  }
  return rows;
}

std::string lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

int number_in(const std::string& text) {
  int number = -1;
  std::from_chars(text.data(), text.data() + text.size(), number);
  return number;
}

std::string read_all(int fd) {
  std::string text;
  std::array<char, 4096> chunk{};
  for (ssize_t got = 0; (got = read(fd, chunk.data(), chunk.size())) > 0;) {
    text.append(chunk.data(), static_cast<std::size_t>(got));
  }
  return text;
}

}  // namespace

bool CtdbNode::is(std::string_view flag) const {
  return std::ranges::find(flags, flag) != flags.end();
}

const CtdbNode* Ctdb::at(std::string_view address) const {
  const auto found = std::ranges::find(nodes, address, &CtdbNode::address);
  return found == nodes.end() ? nullptr : &*found;
}

std::vector<std::string> Ctdb::addresses_of(int number) const {
  std::vector<std::string> all;
  for (const CtdbAddress& one : addresses) {
    if (one.number == number) all.push_back(one.address);
  }
  return all;
}

// The columns between the address and the last one are flags, whose names stand in the head.
std::vector<CtdbNode> nodes_in_status(std::string_view text) {
  std::vector<CtdbNode> nodes;
  const auto rows = table_in(text);
  for (std::size_t at = 1; at < rows.size(); ++at) {
    const auto& row = rows[at];
    if (row.size() < 2 || number_in(row[0]) < 0) continue;
    CtdbNode node{.number = number_in(row[0]), .address = row[1], .flags = {}};
    for (std::size_t column = 2; column < std::min(row.size(), rows[0].size()); ++column) {
      const std::string name = lower(rows[0][column]);
      if (name == "thisnode") {
        node.is_this = row[column] == "Y";
      } else if (row[column] == "1") {
        node.flags.push_back(name);
      }
    }
    nodes.push_back(std::move(node));
  }
  return nodes;
}

std::vector<CtdbAddress> addresses_in(std::string_view text) {
  std::vector<CtdbAddress> addresses;
  for (const auto& row : table_in(text)) {
    const bool is_head = row.size() < 2 || row[0].find_first_of(".:") == std::string::npos;
    if (!is_head) addresses.push_back({row[0], number_in(row[1])});
  }
  return addresses;
}

std::optional<std::string> run_ctdb(const std::vector<std::string>& arguments) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::nullopt;
  const Fd output(ends[0]);
  Fd input(ends[1]);
  std::vector<const char*> words{"ctdb"};
  for (const std::string& argument : arguments) words.push_back(argument.c_str());
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, input.get(), STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  pid_t child = 0;
  const int error = posix_spawnp(&child, "ctdb", &actions, nullptr,
                                 const_cast<char* const*>(words.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  input.reset();
  if (error != 0) return std::nullopt;
  std::string text = read_all(output.get());
  int end = 0;
  waitpid(child, &end, 0);
  if (!WIFEXITED(end) || WEXITSTATUS(end) != 0) return std::nullopt;
  return text;
}

std::optional<Ctdb> ask_ctdb() {
  const auto status = run_ctdb({"-X", "status"});
  if (!status) return std::nullopt;
  Ctdb ctdb{.nodes = nodes_in_status(*status), .addresses = {}};
  if (const auto addresses = run_ctdb({"-X", "ip", "all"}); addresses) {
    ctdb.addresses = addresses_in(*addresses);
  }
  return ctdb;
}

}  // namespace tavrix::cluster
