// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/lost.hpp"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <ctime>

#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/files/boot.hpp"

namespace tavrix::cluster {
namespace {

// A node tells its state every second.
constexpr time_t kSecondsOfSilence = 5;

}  // namespace

std::string reason_of_loss(std::string_view node) {
  return fmt::format("node {} stopped while events were in its memory", node);
}

std::string node_of(const std::string& name_or_address) {
  for (const RunningMark& mark : running_marks()) {
    if (!mark.address.empty() && mark.address == name_or_address) return mark.node;
  }
  return name_or_address;
}

bool is_address(const std::string& text) {
  in6_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ||
         inet_pton(AF_INET6, text.c_str(), &address) == 1;
}

std::optional<std::string> sign_of_life(const std::string& node) {
  for (const RunningMark& mark : running_marks()) {
    if (mark.node == node && node == this_node() && mark.boot == files::this_boot())
      return "it is this machine";
  }
  struct stat info {};
  if (stat(fmt::format("{}/{}.json", kNodesFolder, node).c_str(), &info) != 0) return std::nullopt;
  const time_t age = time(nullptr) - info.st_mtime;
  if (age > kSecondsOfSilence) return std::nullopt;
  return fmt::format("it told its state {} s ago", age);
}

}  // namespace tavrix::cluster
