// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl cluster lost: tells the agent that a node is gone with events in its memory.

#include <cerrno>
#include <cstring>

#include "eventstore.h"
#include "tools/cli/help.hpp"
#include "tools/cluster/lost.hpp"
#include "tools/cluster/node.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"

namespace tavrix::ctl {
namespace {

struct Question {
  std::string name_or_address;
  bool force = false;
};

bool ask_for_rescan(const std::string& node) {
  if (mark_event_db_as_rescan_needed(cluster::reason_of_loss(node).c_str()) == 0) return true;
  complain("{}: {}; the mark of node {} is kept for the next attempt", TAVRIX_RESCAN_PATH,
           std::strerror(errno), node);
  return false;
}

const char* word_of(cluster::Taking taking) {
  switch (taking) {
    case cluster::Taking::kNothing:
      return "nothing";
    case cluster::Taking::kTold:
      return "told";
    case cluster::Taking::kElsewhere:
      return "elsewhere";
    case cluster::Taking::kUntold:
      break;
  }
  return "untold";
}

std::string sentence_of(cluster::Taking taking, const std::string& node) {
  switch (taking) {
    case cluster::Taking::kNothing:
      return fmt::format("node {} left no mark: it ended in order, or its loss is told", node);
    case cluster::Taking::kTold:
      return cluster::reason_of_loss(node) + "; the agent is asked for a rescan";
    case cluster::Taking::kElsewhere:
      return fmt::format("another node tells of the loss of {}", node);
    case cluster::Taking::kUntold:
      break;
  }
  return {};
}

int tell(const Question& question, const Options& options) {
  if (!options.verbose) set_debug_level(-1);
  const std::string node = cluster::node_of(question.name_or_address);
  if (!cluster::is_node_name(node) && !cluster::is_address(node)) {
    complain("\"{}\" is neither a node's name nor an address", node);
    return kFailure;
  }
  cluster::finish_taken_marks(ask_for_rescan);
  if (const auto sign = cluster::sign_of_life(node); sign && !question.force) {
    complain("node {} lives: {}; if it is gone, ask again in some seconds, or with --force", node,
             *sign);
    return kNo;
  }
  const cluster::Taking taking = cluster::take_running_mark(node, ask_for_rescan);
  if (taking == cluster::Taking::kUntold) return kFailure;
  if (options.json) {
    Json json = document("cluster-lost");
    json["node"] = node;
    json["result"] = word_of(taking);
    print(json);
  } else {
    fmt::print("{}\n", sentence_of(taking, node));
  }
  return kYes;
}

}  // namespace

void add_cluster_lost_command(CLI::App& cluster, Options& options, Action& action) {
  static Question question;
  CLI::App* command = cluster.add_subcommand(
      "lost", "Tell the agent that a node is gone (exit 1: the node seems to live)");
  command->add_option("node", question.name_or_address, "the node's name or its address")
      ->required()
      ->type_name("NODE");
  command->add_flag("--force", question.force, "although the node seems to live");
  cli::add_examples(*command,
                    {{"tavrixctl cluster lost node2", "ask for a rescan if node2 had events"},
                     {"tavrixctl cluster lost 10.0.0.2", "the same, by the address in CTDB"},
                     {"tavrixctl --json cluster lost node2", "the same, for a program"}});
  command->callback(
      [&options, &action] { action = [&options] { return tell(question, options); }; });
}

}  // namespace tavrix::ctl
