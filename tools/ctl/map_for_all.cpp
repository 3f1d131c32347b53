// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_for_all.hpp"

#include <cerrno>
#include <cstring>

#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/ctl/output.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::ctl {

bool is_node_of_cluster() {
  return settings::ServiceSettings::read(settings::kSettingsFile).is_on("CLUSTER:enabled");
}

std::optional<uint32_t> put_up_for_all(const cluster::Files& files) {
  const std::string node = cluster::this_node();
  const cluster::HandOver hand_over(".operator." + node, node);
  const auto number = hand_over.stage(files) ? hand_over.give_number() : std::nullopt;
  if (!number) {
    complain("the map cannot be put up for all nodes in {}: {}", cluster::kMapsFolder,
             std::strerror(errno));
  }
  return number;
}

void print_put_up(const Options& options, const std::string& name, uint32_t number) {
  if (!options.json) {
    fmt::print("the map is put up for all nodes as map {}\n", number);
    return;
  }
  Json json = document(name);
  json["published"] = false;
  json["number"] = number;
  print(json);
}

}  // namespace tavrix::ctl
