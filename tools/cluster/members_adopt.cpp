// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/members_adopt.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "internal/scoped.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/node_folders.hpp"
#include "tools/notes/open_notes.h"
#include "tools/sweeper/staging_owner.hpp"

namespace tavrix::cluster {
namespace {

std::optional<std::string> sign_of_life(const std::optional<int64_t>& written, const char* what,
                                        int64_t silence) {
  if (!written) return std::nullopt;
  const int64_t age = time(nullptr) - *written;
  if (age > silence) return std::nullopt;
  return fmt::format("{} {} s ago, and it counts as gone after {} s", what, age, silence);
}

// The events of notes go into the buffer of this node; without one the library gives up.
std::string settle_notes(const std::string& node, int& settled) {
  if (sweeper::buffer_fill().bytes == 0) {
    return "this node has no staging buffer for the events of open files; start tavrix-sweeper";
  }
  const int count = settle_open_notes_of(node.c_str());
  if (count < 0) return fmt::format("{}/{}: {}", OPEN_NOTES_FOLDER, node, std::strerror(errno));
  settled = count;
  return {};
}

}  // namespace

std::optional<std::string> reason_to_wait(const Member& member, const std::optional<Ctdb>& ctdb,
                                          int64_t silence) {
  if (member.node == this_node()) return "it is this machine, whose own sweeper settles its files";
  const CtdbNode* seen = ctdb ? ctdb->at(member.address) : nullptr;
  const bool is_lost = seen != nullptr && seen->is("disconnected");
  if (seen != nullptr && !is_lost) return "CTDB is connected with it";
  const auto told = member.word ? std::optional(member.word->written) : std::nullopt;
  if (auto sign = sign_of_life(told, "it told its state", silence); sign) return sign;
  const auto swept = member.staged ? std::optional(member.staged->written) : std::nullopt;
  if (auto sign = sign_of_life(swept, "its sweeper worked", silence); sign) return sign;
  if (member.has_mark && !is_lost) {
    return fmt::format(
        "its running mark is there, and CTDB does not say that it is gone; \"tavrixctl cluster "
        "lost "
        "{}\" takes the mark",
        member.node);
  }
  return std::nullopt;
}

Adoption adopt(const std::string& node, const ctl::SettingsFile& settings) {
  Adoption adoption;
  const std::string folder = folder_of(ctl::shared_folder(settings, PARAM_STAGING_DIR), node);
  const Fd lock(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!lock && errno != ENOENT) {
    adoption.problem = fmt::format("{}: {}", folder, std::strerror(errno));
    return adoption;
  }
  if (lock && flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    adoption.problem = fmt::format("another process settles the files of {} now", node);
    return adoption;
  }
  if (lock) adoption.files = sweeper::settle_files_of_gone_node(folder);
  adoption.problem = settle_notes(node, adoption.notes);
  for (const sweeper::Stranded& file : adoption.files) {
    const bool is_left = file.result == Settled::kLive || file.result == Settled::kFailed;
    if (is_left) adoption.problem = file.sentence;
  }
  return adoption;
}

}  // namespace tavrix::cluster
