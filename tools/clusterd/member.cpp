// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/member.hpp"

#include <fmt/format.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "tavrix_getgrouplist.h"
#include "tools/cluster/paths.hpp"
#include "tools/clusterd/apply.hpp"
#include "tools/files/boot.hpp"
#include "tools/files/durable.hpp"
#include "tools/service/journal.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::clusterd {
namespace {

using cluster::Proposal;
using service::say;
using service::Tone;

constexpr const char* kSmbConf = "/etc/samba/smb.conf";
constexpr std::chrono::seconds kLongestPause{30};

std::string because_of_errno(const std::string& what) {
  return fmt::format("{}: {}", what, std::strerror(errno));
}

}  // namespace

Member::Member(Settings settings)
    : settings_(std::move(settings)),
      boot_(files::this_boot()),
      others_(settings_.node),
      leadership_(settings_.node, settings_.leader_file),
      coordinator_(settings_.node, settings_.commit),
      settings_hash_(settings::kSettingsFile),
      smb_conf_hash_(kSmbConf),
      group_map_hash_(TAVRIX_GROUPMAP_PATH) {}

void Member::look() {
  const int64_t start = cluster::lease_clock();
  problems_.clear();
  is_pending_ = is_current_ = false;
  look_at_settings();
  finish_work();
  const bool is_tree_well = look_at_tree();
  own_ = own_map();
  if (is_tree_well) {
    lead();
    begin_work();
  }
  if (!failure_.empty()) problems_.insert(failure_);
  const bool is_said = is_tree_well && write_state(own_state());
  if (is_tree_well && !is_said) problems_.insert(because_of_errno(cluster::kNodesFolder));
  is_current_ = is_said && own_.number >= committed_.number;
  if (is_current_) renew(start);
  tell_differences();
  tell_problems();
}

// The settings may come with a map. The name of the node, and that it is one, hold until the daemon
// is started again.
void Member::look_at_settings() {
  const std::string& hash = settings_hash_.look();
  if (hash == read_settings_) return;
  const bool is_first = !read_settings_;
  read_settings_ = hash;
  Settings read = read_settings(settings_.file);
  for (const std::string& line : read.warnings) {
    if (!is_first) say(Tone::kWarning, line);
  }
  settings_.commit = read.commit;
  settings_.fence = read.fence;
  settings_.kept_maps = read.kept_maps;
  coordinator_.set_patience(read.commit);
}

// A node that had maps of the cluster and finds none has lost the shared tree: it looks into an
// empty folder where the tree is mounted otherwise.
bool Member::look_at_tree() {
  const auto committed = cluster::read_committed();
  if (!committed) {
    problems_.insert(because_of_errno(cluster::kCommitted));
    return false;
  }
  if (committed->number == 0 && last_published()) {
    problems_.insert(
        fmt::format("{} is not there; is the shared tree mounted?", cluster::kCommitted));
    return false;
  }
  if (!cluster::make_shared_folders()) {
    problems_.insert(because_of_errno(cluster::kSharedFolder));
    return false;
  }
  auto proposals = cluster::proposals();
  if (!proposals) {
    problems_.insert(because_of_errno(cluster::kMapsFolder));
    return false;
  }
  committed_ = *committed;
  proposals_ = std::move(*proposals);
  others_.look();
  return true;
}

// --- work ----------------------------------------------------------------------------------------

// The map that all nodes must have comes first; then the one that they may get.
void Member::begin_work() {
  if (job_.is_running()) return;
  const bool is_behind = own_.number < committed_.number;
  const Proposal* next = next_proposal(proposals_, committed_);
  is_pending_ = is_behind || next != nullptr;
  if (Clock::now() < retry_.next) return;
  if (is_behind) {
    start(fmt::format("map {} of the cluster cannot be made current", committed_.number),
          [committed = committed_, kept = settings_.kept_maps] { return apply(committed, kept); });
  } else if (next != nullptr && !answered_.contains(next->number)) {
    start(fmt::format("map {} of the cluster cannot be prepared", next->number),
          [proposal = *next, node = settings_.node] { return prepare_and_answer(proposal, node); });
    answered_.insert(next->number);
  } else if (next == nullptr) {
    forget_prepared(own_.number);
    answered_.clear();
  }
}

void Member::start(const std::string& what, const std::function<Outcome()>& work) {
  work_ = what;
  if (!job_.start(work)) failure_ = because_of_errno(what);
}

void Member::finish_work() {
  const auto outcome = job_.ended();
  if (!outcome) return;
  failure_.clear();
  if (outcome->kind == Outcome::Kind::kDone) {
    retry_ = {};
    return;
  }
  // A refusal of a proposal is an answer, and the leader tells it. A committed map that this node
  // alone refuses is its own trouble.
  failure_ = fmt::format("{}: {}", work_, outcome->text);
  if (outcome->kind == Outcome::Kind::kRefused && own_.number >= committed_.number) {
    failure_.clear();
    return;
  }
  answered_.clear();
  retry_.next = Clock::now() + retry_.pause;
  retry_.pause = std::min(2 * retry_.pause, kLongestPause);
}

// --- leading -------------------------------------------------------------------------------------

void Member::lead() {
  if (!leadership_.look(others_)) return;
  put_back();
  std::vector<State> living = others_.living();
  State own;
  own.node = settings_.node;
  own.number = own_.number;
  living.push_back(std::move(own));
  if (coordinator_.look(committed_, proposals_, living)) {
    const auto committed = cluster::read_committed();
    auto proposals = cluster::proposals();
    if (committed) committed_ = *committed;
    if (proposals) proposals_ = std::move(*proposals);
  }
}

// A leader that lost its lock without a sign may have written a lower number over a higher one.
void Member::put_back() {
  const auto last = last_published();
  if (!last || last->number <= committed_.number) return;
  if (!cluster::write_committed(*last, settings_.node)) {
    problems_.insert(because_of_errno(cluster::kCommitted));
    return;
  }
  say(Tone::kWarning, fmt::format("map {} of the cluster is committed again: somebody had put map "
                                  "{} in its place",
                                  last->number, committed_.number));
  committed_ = *last;
}

// --- words ---------------------------------------------------------------------------------------

State Member::own_state() {
  State state;
  state.node = settings_.node;
  state.boot = boot_;
  state.time = std::time(nullptr);
  state.beat = ++beat_;
  state.number = own_.number;
  state.generation = own_.generation;
  state.prepared = std::max(own_.number, highest_prepared());
  state.settings_hash = settings_hash_.look();
  state.smb_conf_hash = smb_conf_hash_.look();
  state.group_map_hash = group_map_hash_.look();
  state.problems.assign(problems_.begin(), problems_.end());
  return state;
}

void Member::tell_differences() {
  struct Kind {
    const char* file;
    std::string State::*hash;
  };
  const Kind kinds[] = {{settings::kSettingsFile, &State::settings_hash},
                        {kSmbConf, &State::smb_conf_hash},
                        {TAVRIX_GROUPMAP_PATH, &State::group_map_hash}};
  State own;
  own.settings_hash = settings_hash_.look();
  own.smb_conf_hash = smb_conf_hash_.look();
  own.group_map_hash = group_map_hash_.look();
  std::set<std::string> differences;
  for (const State& other : others_.living()) {
    for (const Kind& kind : kinds) {
      if (other.*kind.hash == own.*kind.hash) continue;
      differences.insert(fmt::format(
          "{} differs from that of node {}; all nodes must have the same", kind.file, other.node));
    }
  }
  for (const std::string& text : differences) {
    if (!told_differences_.contains(text)) say(Tone::kWarning, text);
  }
  told_differences_ = std::move(differences);
}

void Member::tell_problems() {
  for (const std::string& text : problems_) {
    if (!told_problems_.contains(text)) say(Tone::kError, text);
  }
  told_problems_ = problems_;
}

std::string Member::problem() const {
  if (!problems_.empty()) return *problems_.begin();
  return own_.number < committed_.number
             ? fmt::format("this node has map {} of the cluster, and map {} is committed",
                           own_.number, committed_.number)
             : "";
}

std::string Member::status() const {
  const std::string map = committed_.number == 0
                              ? "no map was handed to the cluster yet"
                              : fmt::format("map {} of the cluster", own_.number);
  const std::string trouble = problem();
  return fmt::format("{}; {}{}{}", map, text::counted(others_.living().size() + 1, "living node"),
                     leadership_.is_held() ? "; this node leads" : "",
                     trouble.empty() ? "" : "; " + trouble);
}

// --- the lease -----------------------------------------------------------------------------------

// At the start of this look the committed map was in force here. Any later one was committed after
// that, so a lease of this length, counted from the start, keeps the bound whatever happens next.
void Member::renew(int64_t start) {
  if (lease_.extend(start + settings_.lease())) return;
  problems_.insert(because_of_errno(TAVRIX_LEASE_FILE));
}

}  // namespace tavrix::clusterd
