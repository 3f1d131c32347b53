// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl cluster: the nodes that serve one tree.

#include <unistd.h>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <ctime>
#include <set>

#include "tools/cli/help.hpp"
#include "tools/cluster/members.hpp"
#include "tools/cluster/members_adopt.hpp"
#include "tools/cluster/members_ctdb.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/node_folders.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/shared_settings.hpp"
#include "tools/ctl/survive.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/status/gather.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using cluster::Ctdb;
using cluster::CtdbNode;
using cluster::Member;
using settings::kSettingsFile;

constexpr int64_t kMostSilence = 5;  // seconds: a node tells its state every second
constexpr auto kPause = 200'000;     // microseconds between two looks

// The settings of a node; complains on a machine that is none.
std::optional<SettingsFile> node_settings() {
  SettingsFile file = read_settings_file(kSettingsFile);
  if (!file.node.empty() && file.errors.empty()) return file;
  complain(file.errors.empty()
               ? fmt::format("this machine is no node of a cluster; \"enabled = yes\" "
                             "in the section [CLUSTER] of {} makes it one",
                             kSettingsFile)
               : file.errors.front());
  return std::nullopt;
}

// --- status --------------------------------------------------------------------------------------

struct Row {
  Member member;
  const CtdbNode* ctdb = nullptr;
  std::vector<std::string> addresses;
  status::Dumps dumps;
  std::vector<std::string> troubles;
};

struct Picture {
  std::string node;
  std::optional<Ctdb> ctdb;
  std::vector<Row> rows;
  std::vector<std::string> differing;  // what nodes should have in common
  [[nodiscard]] bool is_well() const {
    return differing.empty() &&
           std::ranges::all_of(rows, [](const Row& row) { return row.troubles.empty(); });
  }
};

void find_troubles(Row& row) {
  if (row.ctdb != nullptr) row.troubles = row.ctdb->flags;
  if (!row.member.word) {
    row.troubles.emplace_back("it has told no state");
    return;
  }
  const int64_t age = time(nullptr) - row.member.word->written;
  if (age > kMostSilence) {
    row.troubles.push_back(fmt::format("silent for {}", text::counted(age, "second")));
  }
  const auto& told = row.member.word->problems;
  row.troubles.insert(row.troubles.end(), told.begin(), told.end());
}

void find_difference(Picture& picture, const char* what, std::string cluster::Word::*hash) {
  std::set<std::string> seen;
  for (const Row& row : picture.rows) {
    if (row.member.word && !((*row.member.word).*hash).empty()) {
      seen.insert((*row.member.word).*hash);
    }
  }
  if (seen.size() > 1) picture.differing.emplace_back(what);
}

Picture look(const SettingsFile& settings) {
  Picture picture{.node = settings.node, .ctdb = cluster::ask_ctdb(), .rows = {}, .differing = {}};
  const std::string staging = shared_folder(settings, PARAM_STAGING_DIR);
  for (Member& member : cluster::members()) {
    Row row;
    std::vector<status::Unread> none;
    row.dumps = status::look_at_dumps(cluster::folder_of(staging, member.node), none);
    if (picture.ctdb) row.ctdb = picture.ctdb->at(member.address);
    if (row.ctdb != nullptr) row.addresses = picture.ctdb->addresses_of(row.ctdb->number);
    row.member = std::move(member);
    find_troubles(row);
    picture.rows.push_back(std::move(row));
  }
  find_difference(picture, "settings", &cluster::Word::settings_hash);
  find_difference(picture, "smb.conf", &cluster::Word::smb_conf_hash);
  find_difference(picture, "group list map", &cluster::Word::group_map_hash);
  return picture;
}

Json json_of(const Row& row) {
  Json json;
  json["node"] = row.member.node;
  json["running_mark"] = row.member.has_mark;
  if (row.ctdb != nullptr) {
    json["ctdb"] = {{"number", row.ctdb->number},
                    {"address", row.ctdb->address},
                    {"flags", row.ctdb->flags},
                    {"this", row.ctdb->is_this}};
    json["addresses"] = row.addresses;
  }
  if (const auto& word = row.member.word; word) {
    json["number"] = word->number;
    json["generation"] = word->generation;
    json["prepared"] = word->prepared;
    json::set_time(json, "told", word->written);
    json["clock_offset_seconds"] = word->time - word->written;
  }
  if (const auto& staged = row.member.staged; staged) {
    json["staged_records"] = staged->records;
    json["staged_bytes"] = staged->bytes;
  }
  json["dumps"] = row.dumps.count;
  json["dump_bytes"] = row.dumps.bytes;
  if (row.dumps.oldest) json::set_time(json, "oldest_dump", *row.dumps.oldest);
  json["troubles"] = row.troubles;
  return json;
}

void print_picture(const Picture& picture) {
  constexpr auto kLine = "{:<16} {:<6} {:<10} {:<9} {:<7} {:<6} {:<6} {}\n";
  fmt::print(kLine, "NODE", "MAP", "GENERATION", "PREPARED", "STAGED", "DUMPS", "CLOCK",
             "ADDRESSES");
  for (const Row& row : picture.rows) {
    const auto& word = row.member.word;
    const auto of_word = [&](auto value) { return word ? fmt::format("{}", value) : "-"; };
    std::string addresses;
    for (const std::string& address : row.addresses) addresses += address + " ";
    fmt::print(kLine, row.member.node, of_word(word ? word->number : 0),
               of_word(word ? word->generation : 0), of_word(word ? word->prepared : 0),
               row.member.staged ? fmt::format("{}", row.member.staged->records) : "-",
               row.dumps.count, word ? fmt::format("{:+}", word->time - word->written) : "-",
               addresses.empty() ? "-" : shown(addresses));
    for (const std::string& trouble : row.troubles) fmt::print("    {}\n", shown(trouble));
  }
  for (const std::string& what : picture.differing) fmt::print("differs between nodes: {}\n", what);
  if (!picture.ctdb) fmt::print("CTDB does not answer here: \"ctdb status\" says why\n");
}

int show_status(const Options& options) {
  const auto settings = node_settings();
  if (!settings) return kFailure;
  const Picture picture = look(*settings);
  if (!options.json) {
    print_picture(picture);
    return picture.is_well() ? kYes : kNo;
  }
  Json json = document("cluster-status");
  json["node"] = picture.node;
  json["well"] = picture.is_well();
  json["ctdb"] = picture.ctdb.has_value();
  json["nodes"] = Json::array();
  for (const Row& row : picture.rows) json["nodes"].push_back(json_of(row));
  json["differing"] = picture.differing;
  print(json);
  return picture.is_well() ? kYes : kNo;
}

// --- drain and resume ----------------------------------------------------------------------------

struct Move {
  std::string node;
  int seconds = 60;
};

// The node of a name, of its address or of its number in CTDB.
const CtdbNode* find_node(const Ctdb& ctdb, const std::string& name) {
  const std::string address = cluster::is_node_name(name) ? cluster::member(name).address : "";
  int number = -1;
  const char* end = name.data() + name.size();
  if (std::from_chars(name.data(), end, number).ptr != end) number = -1;
  for (const CtdbNode& node : ctdb.nodes) {
    const bool is_named = node.address == name || (!address.empty() && node.address == address);
    if (is_named || node.number == number) return &node;
  }
  return nullptr;
}

// The node's number; complains and returns nothing when CTDB does not know it.
std::optional<int> number_of(const std::string& name) {
  const auto ctdb = cluster::ask_ctdb();
  if (!ctdb) {
    complain("CTDB does not answer here; \"ctdb status\" says why");
    return std::nullopt;
  }
  if (const CtdbNode* node = find_node(*ctdb, name); node != nullptr) return node->number;
  complain(
      "CTDB knows no node \"{}\"; give a name, an address or a number that \"tavrixctl cluster "
      "status\" or \"ctdb status\" shows",
      name);
  return std::nullopt;
}

template <typename Condition>
bool comes(int seconds, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    usleep(kPause);
  }
  return true;
}

// The node's own name, by which it keeps its files.
std::string name_of(const std::string& given, int number) {
  const auto ctdb = cluster::ask_ctdb();
  for (const Member& member : cluster::members()) {
    const CtdbNode* node = ctdb ? ctdb->at(member.address) : nullptr;
    if (node != nullptr && node->number == number) return member.node;
  }
  return given;
}

bool tell_ctdb(int number, const char* what) {
  if (cluster::run_ctdb({"-n", std::to_string(number), what})) return true;
  complain("\"ctdb -n {} {}\" failed; run it to see why", number, what);
  return false;
}

int done(const Options& options, const char* schema, const Move& move,
         const std::string& sentence) {
  if (options.json) {
    Json json = document(schema);
    json["node"] = move.node;
    json["done"] = true;
    print(json);
  } else {
    fmt::print("{}\n", sentence);
  }
  return kYes;
}

int drain(const Move& move, const Options& options) {
  const auto number = number_of(move.node);
  if (!number || !tell_ctdb(*number, "disable")) return kFailure;
  const auto has_moved = [&] {
    const auto ctdb = cluster::ask_ctdb();
    return ctdb && ctdb->addresses_of(*number).empty();
  };
  if (!comes(move.seconds, has_moved)) {
    complain(
        "node {} still has addresses after {} s; \"ctdb ip\" shows them, and \"tavrixctl cluster "
        "resume {}\" takes this back",
        move.node, move.seconds, move.node);
    return kNo;
  }
  const std::string name = name_of(move.node, *number);
  const int64_t since = time(nullptr);
  const auto is_flushed = [&] {
    const auto staged = cluster::member(name).staged;
    return staged && staged->records == 0 && staged->written > since;
  };
  if (!comes(move.seconds, is_flushed)) {
    complain(
        "the addresses of {} have moved, and its events were not seen to be flushed within {} s; "
        "is tavrix-sweeper well there?",
        move.node, move.seconds);
    return kNo;
  }
  return done(options, "cluster-drain", move,
              fmt::format("node {} has no addresses and no events in memory", move.node));
}

int resume(const Move& move, const Options& options) {
  const auto number = number_of(move.node);
  if (!number || !tell_ctdb(*number, "enable")) return kFailure;
  const auto is_back = [&] {
    const auto ctdb = cluster::ask_ctdb();
    return ctdb && std::ranges::any_of(ctdb->nodes, [&](const CtdbNode& node) {
             return node.number == *number && node.flags.empty();
           });
  };
  if (comes(move.seconds, is_back)) {
    return done(options, "cluster-resume", move, fmt::format("node {} serves again", move.node));
  }
  complain("node {} is enabled and not well after {} s; \"tavrixctl health\" there says why",
           move.node, move.seconds);
  return kNo;
}

// --- adopt ---------------------------------------------------------------------------------------

struct AdoptArguments {
  std::string node;
  bool is_gone = false;  // the operator says so
};

const char* word_of(Settled result) {
  switch (result) {
    case Settled::kPublished:
      return "published";
    case Settled::kRemoved:
      return "removed";
    case Settled::kForeign:
      return "set-aside";
    case Settled::kLive:
      return "locked";
    case Settled::kFailed:
      return "failed";
    case Settled::kGone:
      break;
  }
  return "gone";
}

void print_adoption(const std::string& node, const cluster::Adoption& adoption) {
  for (const auto& file : adoption.files) {
    if (!file.sentence.empty()) fmt::print("{}\n", shown(file.sentence));
  }
  if (adoption.notes > 0) {
    fmt::print("recorded {} that {} had open\n", text::counted(adoption.notes, "changed file"),
               node);
  }
  if (adoption.problem.empty()) fmt::print("nothing is left to settle of {}\n", node);
}

int report(const std::string& node, const cluster::Adoption& adoption, const Options& options) {
  if (options.json) {
    Json json = document("cluster-adopt");
    json["node"] = node;
    json["done"] = adoption.problem.empty();
    if (!adoption.problem.empty()) set_bytes(json, "problem", adoption.problem);
    json["files"] = Json::array();
    for (const auto& file : adoption.files) {
      if (file.sentence.empty()) continue;
      Json entry = {{"result", word_of(file.result)}};
      set_bytes(entry, "sentence", file.sentence);
      json["files"].push_back(std::move(entry));
    }
    json["notes"] = adoption.notes;
    print(json);
  } else {
    print_adoption(node, adoption);
    if (!adoption.problem.empty()) complain(adoption.problem);
  }
  return adoption.problem.empty() ? kYes : kNo;
}

int adopt(const AdoptArguments& arguments, const Options& options) {
  const std::string& node = arguments.node;
  const auto settings = node_settings();
  if (!settings) return kFailure;
  if (!cluster::is_node_name(node)) {
    complain("\"{}\" is no name of a node", node);
    return kFailure;
  }
  const Member member = cluster::member(node);
  const int64_t silence =
      settings::ServiceSettings::read(kSettingsFile).number("CLUSTER:fence seconds");
  auto reason = cluster::reason_to_wait(member, cluster::ask_ctdb(), silence);
  const bool is_this = node == settings->node;
  if (reason && (is_this || !arguments.is_gone)) {
    complain("{} may still live: {}{}", node, *reason,
             is_this ? "" : "; --yes-it-is-gone settles its files all the same");
    return kNo;
  }
  if (!use_shared_settings()) return kFailure;
  if (!options.verbose) set_debug_level(-1);
  return survive("the adoption",
                 [&] { return report(node, cluster::adopt(node, *settings), options); });
}

// --- the command line ----------------------------------------------------------------------------

void add_move(CLI::App& group, const char* name, const char* help, const char* purpose,
              int (*work)(const Move&, const Options&), Options& options, Action& action) {
  static Move move;
  CLI::App* command = group.add_subcommand(name, help);
  command->add_option("node", move.node, "the node's name, or its address or number in CTDB")
      ->required()
      ->type_name("NODE");
  command->add_option("--seconds", move.seconds, "wait at most so long for each step")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  const std::string line = std::string("cluster ") + name + " node2";
  cli::add_examples(*command, {{"tavrixctl " + line, purpose},
                               {"tavrixctl --json " + line, "the same, for a program"}});
  command->callback(
      [&options, &action, work] { action = [&options, work] { return work(move, options); }; });
}

void add_cluster_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* group = app.add_subcommand("cluster", "The nodes that serve one tree");
  group->require_subcommand(1);
  cli::add_examples(*group,
                    {{"tavrixctl cluster status", "all nodes, and what is wrong with them"}});
  CLI::App* status = group->add_subcommand(
      "status", "Show all nodes, their maps, events and troubles (exit 1: there are some)");
  cli::add_examples(*status,
                    {{"tavrixctl cluster status", "all nodes, and what is wrong with them"},
                     {"tavrixctl --json cluster status", "the same, for a program"}});
  status->callback([&options, &action] { action = [&options] { return show_status(options); }; });

  add_move(*group, "drain", "Take a node out of service, with nothing left in it (exit 1: not yet)",
           "before work on node2", drain, options, action);
  add_move(*group, "resume", "Let a node serve again (exit 1: not yet)", "after work on node2",
           resume, options, action);

  static AdoptArguments arguments;
  CLI::App* adopt_command = group->add_subcommand(
      "adopt", "Settle what a node that is gone has left (exit 1: it may still live)");
  adopt_command->add_option("node", arguments.node, "the node's name")
      ->required()
      ->type_name("NODE");
  adopt_command->add_flag("--yes-it-is-gone", arguments.is_gone,
                          "settle although nothing else says that it is gone");
  cli::add_examples(
      *adopt_command,
      {{"tavrixctl cluster adopt node2", "once node2 is known to be gone"},
       {"tavrixctl cluster adopt node2 --yes-it-is-gone", "after a look at the machine"},
       {"tavrixctl --json cluster adopt node2", "the same, for a program"}});
  adopt_command->callback(
      [&options, &action] { action = [&options] { return adopt(arguments, options); }; });

  add_cluster_lost_command(*group, options, action);
  add_cluster_share_command(*group, options, action);
}

const Command registered(9, add_cluster_commands);

}  // namespace
}  // namespace tavrix::ctl
