// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/coordinator.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "tools/cluster/paths.hpp"
#include "tools/files/durable.hpp"
#include "tools/service/journal.hpp"

namespace tavrix::clusterd {
namespace {

using cluster::Answer;
using cluster::Companion;
using cluster::Proposal;
using service::say;
using service::Tone;

const std::string kLeaderLock = std::string(cluster::kSharedFolder) + "/.leader";
const std::string kDeposing = std::string(cluster::kSharedFolder) + "/.leader.deposing";

std::string name_of_leader() {
  const std::string text = files::read_whole(kLeaderLock).value_or("");
  return text.substr(0, text.find('\n'));
}

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

}  // namespace

bool Leadership::may_lead() const {
  if (leader_file_.empty()) return true;
  const std::string text = files::read_whole(leader_file_).value_or("");
  return text.substr(0, text.find_first_of(" \t\n")) == node_;
}

// Somebody may have removed the file; a lock on it would then exclude nobody.
bool Leadership::is_lock_in_place() const {
  struct stat held {
  }, named{};
  return fstat(lock_.get(), &held) == 0 && stat(kLeaderLock.c_str(), &named) == 0 &&
         held.st_dev == named.st_dev && held.st_ino == named.st_ino;
}

// A leader that cannot write its name cannot commit either.
void Leadership::take() {
  lock_ = cluster::lock_shared(kLeaderLock, cluster::Wait::kNo);
  if (!lock_) return;
  const std::string name = node_ + "\n";
  const bool is_named =
      ftruncate(lock_.get(), 0) == 0 &&
      pwrite(lock_.get(), name.data(), name.size(), 0) == static_cast<ssize_t>(name.size());
  if (!is_named || !is_lock_in_place()) lock_.reset();
}

// A number that it was about to commit when it began to hang may still come. Another leader puts
// back a number that goes back, and no node follows it.
void Leadership::depose(const Others& others) {
  const std::string leader = name_of_leader();
  if (!others.is_silent(leader)) return;
  const Fd turn = cluster::lock_shared(kDeposing, cluster::Wait::kNo);
  if (!turn || name_of_leader() != leader || unlink(kLeaderLock.c_str()) != 0) return;
  say(Tone::kWarning,
      fmt::format("{} leads the cluster and has not said anything for seconds; another node leads "
                  "from now on",
                  leader));
  take();
}

bool Leadership::look(const Others& others) {
  if (lock_ && (!may_lead() || !is_lock_in_place())) lock_.reset();
  if (!lock_ && may_lead()) {
    take();
    if (!lock_) depose(others);
  }
  return is_held();
}

const Proposal* next_proposal(const std::vector<Proposal>& all,
                              const cluster::Committed& committed) {
  const auto next = std::ranges::find_if(all, [&](const Proposal& proposal) {
    return proposal.number > committed.number && !proposal.is_refused;
  });
  return next == all.end() ? nullptr : &*next;
}

bool Coordinator::look(const cluster::Committed& committed, const std::vector<Proposal>& proposals,
                       const std::vector<State>& living) {
  cluster::clear_removed();
  remove_old(committed, proposals, living);
  const Proposal* next = next_proposal(proposals, committed);
  if (next == nullptr) return false;
  if (waits_for_ != next->number) {
    waits_for_ = next->number;
    since_ = Clock::now();
  }
  const bool has_later = std::ranges::any_of(proposals, [next](const Proposal& proposal) {
    return proposal.number > next->number && !proposal.is_refused;
  });
  return decide(*next, has_later, living, committed);
}

// This node is among the living ones. A file that one node found broken is broken on all.
bool Coordinator::decide(const Proposal& next, bool has_later, const std::vector<State>& living,
                         const cluster::Committed& before) {
  const std::vector<Answer> answers = cluster::answers(next);
  const Answer* ready = nullptr;
  for (const Answer& answer : answers) {
    if (!answer.refusal.empty()) return refuse(next, answer.node + ": " + answer.refusal);
    ready = &answer;
  }
  std::vector<std::string> missing;
  for (const State& state : living) {
    const bool has_answered = std::ranges::any_of(
        answers, [&state](const Answer& answer) { return answer.node == state.node; });
    if (!has_answered) missing.push_back(state.node);
  }
  const bool is_late = Clock::now() - since_ >= patience_;
  if (ready != nullptr && (missing.empty() || is_late))
    return commit(next, *ready, missing, before);
  // Without this a map that nobody can prepare would keep back those behind it.
  if (ready == nullptr && is_late && has_later) {
    return refuse(next, fmt::format("no node has prepared it within {} seconds, and a later map "
                                    "waits",
                                    patience_.count()));
  }
  return false;
}

bool Coordinator::refuse(const Proposal& proposal, const std::string& why) {
  if (!cluster::refuse(proposal, why, node_)) {
    say(Tone::kError, fmt::format("cannot refuse map {} of the cluster: {}", proposal.number,
                                  std::strerror(errno)));
    return false;
  }
  say(Tone::kWarning, fmt::format("map {} of the cluster, from {}, is refused for all nodes: {}",
                                  proposal.number, proposal.node, why));
  return true;
}

bool Coordinator::commit(const Proposal& proposal, const Answer& answer,
                         const std::vector<std::string>& missing,
                         const cluster::Committed& before) {
  const auto companion = [&proposal](const files::Digest& digest, const Companion& of_before) {
    return digest.empty() ? of_before : Companion{proposal.number, digest};
  };
  const cluster::Committed committed{proposal.number,
                                     proposal.sums,
                                     answer.generation,
                                     answer.timestamp,
                                     std::time(nullptr),
                                     node_,
                                     companion(proposal.sums.groups, before.groups),
                                     companion(proposal.sums.settings, before.settings)};
  if (!cluster::write_committed(committed, node_)) {
    say(Tone::kError, fmt::format("cannot commit map {} of the cluster: {}", proposal.number,
                                  std::strerror(errno)));
    return false;
  }
  if (missing.empty()) {
    say(Tone::kInfo, fmt::format("map {} of the cluster is committed", proposal.number));
  } else {
    say(Tone::kWarning,
        fmt::format("map {} of the cluster is committed without {}: {} not prepared it within {} "
                    "seconds",
                    proposal.number, joined(missing), missing.size() == 1 ? "it has" : "they have",
                    patience_.count()));
  }
  return true;
}

// A node that has an older map may still need the folder of its next one. The files that came with
// an earlier pair and are the cluster's stay for a node that returns.
void Coordinator::remove_old(const cluster::Committed& committed,
                             const std::vector<Proposal>& proposals,
                             const std::vector<State>& living) const {
  const bool is_everywhere = std::ranges::all_of(
      living, [&committed](const State& state) { return state.number >= committed.number; });
  if (!is_everywhere) return;
  for (const Proposal& proposal : proposals) {
    const bool has_companion =
        proposal.number == committed.groups.number || proposal.number == committed.settings.number;
    if (proposal.number < committed.number && !has_companion) {
      static_cast<void>(cluster::remove_proposal(proposal.number));
    }
  }
}

}  // namespace tavrix::clusterd
