// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl cluster share: the settings and the group list map of this node go to all nodes, with
// the map that is in force.

#include <cerrno>
#include <cstring>

#include "tavrix_getgrouplist.h"
#include "tools/cli/help.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/cluster/proposal.hpp"
#include "tools/cluster/settings_for_all.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/map_for_all.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/files/durable.hpp"
#include "tools/groupmap/group_map.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

struct Wish {
  bool settings = false, groups = false;
};

bool may_be_shared(const Wish& wish) {
  if (wish.settings) {
    const std::string mistake = cluster::mistake_in_settings(settings::kSettingsFile);
    if (!mistake.empty()) {
      complain(mistake);
      return false;
    }
  }
  if (!wish.groups) return true;
  const auto bytes = files::read_whole(TAVRIX_GROUPMAP_PATH);
  if (!bytes) {
    complain("{}: {}", TAVRIX_GROUPMAP_PATH, std::strerror(errno));
    return false;
  }
  const uint64_t errors = groupmap::verify(*bytes).errors();
  if (errors > 0) {
    complain("{} has {}; \"tavrixctl groupmap verify\" lists them", TAVRIX_GROUPMAP_PATH,
             text::counted(errors, "error"));
  }
  return errors == 0;
}

// The files go with the pair of the map in force, so none may be on its way meanwhile: they would
// take it back.
std::optional<uint32_t> put_up(const Wish& wish) {
  const auto committed = cluster::read_committed();
  if (committed && committed->number == 0) {
    complain("no map was handed to the cluster yet; the files can go with the first one");
    return std::nullopt;
  }
  const auto last = committed ? cluster::last_number() : std::nullopt;
  const auto proposals = last ? cluster::proposals() : std::nullopt;
  if (!proposals) {
    complain("{}: {}", cluster::kSharedFolder, std::strerror(errno));
    return std::nullopt;
  }
  for (const cluster::Proposal& proposal : *proposals) {
    if (proposal.number <= committed->number || proposal.is_refused) continue;
    complain("map {} is on its way to all nodes; ask again when it is in force", proposal.number);
    return std::nullopt;
  }
  cluster::Proposal source;
  source.number = committed->number;
  const std::string node = cluster::this_node();
  const cluster::HandOver hand_over(".share." + node, node);
  const bool is_image = !committed->sums.image.empty();
  const bool is_staged = hand_over.stage(
      {is_image ? "" : source.size_path(), is_image ? "" : source.data_path(),
       wish.groups ? TAVRIX_GROUPMAP_PATH : "", wish.settings ? settings::kSettingsFile : "",
       is_image ? source.image_path() : ""});
  const auto number = is_staged ? hand_over.give_number(*last) : std::nullopt;
  if (!number) {
    complain("the files cannot be put up for all nodes in {}: {}", cluster::kMapsFolder,
             errno == EAGAIN ? "another map was, meanwhile" : std::strerror(errno));
  }
  return number;
}

int share(const Wish& wish, const Options& options) {
  if (!is_node_of_cluster()) {
    complain("this machine is no node of a cluster: CLUSTER:enabled is no in {}",
             settings::kSettingsFile);
    return kFailure;
  }
  if (!may_be_shared(wish)) return kFailure;
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  const auto number = put_up(wish);
  if (!number) return kFailure;
  if (options.json) {
    Json json = document("cluster-share");
    json["number"] = *number;
    json["settings"] = wish.settings;
    json["groups"] = wish.groups;
    print(json);
  } else {
    fmt::print("{} put up for all nodes as map {}\n",
               wish.settings && wish.groups ? "the settings and the group list map are"
               : wish.settings              ? "the settings are"
                                            : "the group list map is",
               *number);
  }
  return kYes;
}

}  // namespace

void add_cluster_share_command(CLI::App& cluster, Options& options, Action& action) {
  static Wish wish;
  CLI::App* command = cluster.add_subcommand(
      "share", "Give the settings or the group list map of this node to all nodes");
  command->add_flag("--settings", wish.settings, "tavrix.conf");
  command->add_flag("--groups", wish.groups, "the group list map");
  cli::add_examples(
      *command, {{"tavrixctl cluster share --settings", "after a change of tavrix.conf"},
                 {"tavrixctl cluster share --settings --groups", "make all nodes like this one"},
                 {"tavrixctl --json cluster share --groups", "for a program"}});
  command->callback([&options, &action] {
    if (!wish.settings && !wish.groups) throw CLI::RequiredError("--settings or --groups");
    action = [&options] { return share(wish, options); };
  });
}

}  // namespace tavrix::ctl
