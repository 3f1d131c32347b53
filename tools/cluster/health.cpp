// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/health.hpp"

#include <fmt/format.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <optional>
#include <tuple>

#include "eventstore.h"
#include "perm_map.h"
#include "tools/cluster/lease.hpp"
#include "tools/cluster/members.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/ctl/parameter_block.hpp"
#include "tools/files/boot.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/tables.hpp"
#include "tools/settings/service_settings.hpp"
#include "tools/status/machine.hpp"
#include "tools/sweeper/paths.hpp"
#include "tools/sweeper/staging_owner.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::cluster {
namespace {

constexpr int64_t kSlack = 2;              // seconds, between a period and its mark
constexpr int64_t kPatience = 30;          // seconds, for a sweeper on a busy machine
constexpr uint64_t kLeastSpace = 1 << 20;  // bytes, for the next dump file
constexpr int64_t kSecond = 1'000'000'000;

class Look {
 public:
  explicit Look(const std::string& file)
      : settings_(settings::ServiceSettings::read(file)),
        block_(ctl::ParameterBlock::find(no_block_)) {
    if (settings_.is_on("CLUSTER:enabled")) health_.node = this_node();
  }

  Health take() {
    // The lease is on this machine: a shared tree that hangs cannot keep this from saying so.
    if (is_node()) add("lease", lease());
    add("settings", settings());
    add("map", map());
    if (is_node()) add("committed", committed());
    add("sweeper", sweeper());
    add("staging", staging());
    alarms();
    return std::move(health_);
  }

  Health take_without_tree() {
    if (is_node()) add("lease", lease());
    add("settings", settings());
    add("tree", TAVRIX_TREE
        " does not answer, so nobody can work in it; \"dmesg\" and the journal of its file system "
        "may say why");
    return std::move(health_);
  }

 private:
  [[nodiscard]] bool is_node() const { return !health_.node.empty(); }
  void add(const char* name, std::string problem) {
    health_.checks.push_back({name, std::move(problem)});
  }
  [[nodiscard]] bool is_filled() const { return block_ && block_->is_filled(); }

  [[nodiscard]] std::string settings() const {
    if (!block_) return no_block_;
    if (is_filled()) return {};
    return "the settings are not loaded; start tavrix-sweeper, or \"tavrixctl config load FILE\"";
  }

  static std::string lease() {
    const auto end = lease_end();
    if (!end && access(kLease, F_OK) == 0) {
      return fmt::format("{} is no lease; restart tavrix-clusterd", kLease);
    }
    if (!end) {
      return fmt::format("there is no lease ({}: {}); start tavrix-clusterd", kLease,
                         std::strerror(errno));
    }
    const int64_t over = lease_clock() - *end;
    if (over < 0) return {};
    if (*end == 0) {
      return "this node may not serve yet: it waits for the map of the cluster";
    }
    return fmt::format(
        "the lease is over for {}: the map is an old one, the shared tree does not answer, or "
        "tavrix-clusterd does not run; \"journalctl -u tavrix-clusterd\" says which",
        text::counted(over / kSecond, "second"));
  }

  std::string map() {
    const mapload::Tables tables = mapload::look_at_tables();
    if (tables.error != 0) {
      return fmt::format("the tables of the map cannot be looked at: {}",
                         std::strerror(tables.error));
    }
    const bool is_named =
        tables.set != -1 && tables.initialized == 1 && (tables.current == 0 || tables.current == 1);
    if (!is_named || tables.table[tables.current].id == -1) {
      if (has_cluster_no_map()) {
        health_.notes.push_back({"map",
                                 "no map was handed to the cluster yet, so nobody may do "
                                 "anything"});
        return {};
      }
      return "there is no map, so nobody may do anything; hand one over, or \"tavrixctl map "
             "restore\"";
    }
    if (access(mapload::kLocalCopy, F_OK) != 0) {
      return fmt::format("{}: {}; \"tavrixctl map restore\" or tavrix-loader repairs it",
                         mapload::kLocalCopy, std::strerror(errno));
    }
    const mapload::Attached table(tables.table[tables.current]);
    if (!table) return fmt::format("the map cannot be attached: {}", std::strerror(errno));
    tavrix_be_header header{};
    if (table.bytes().size() >= sizeof header) {
      std::memcpy(&header, table.bytes().data(), sizeof header);
    }
    if (header.signature != TAVRIX_BE_HEADER_SIGNATURE) {
      return "the current map is damaged; \"tavrixctl map restore\" loads the local copy";
    }
    generation_ = uint32_t{header.generationnum};  // packed
    return {};
  }

  // All nodes share this. A shared tree that is away looks alike, and ends the lease.
  [[nodiscard]] bool has_cluster_no_map() const {
    return is_node() && access(kCommitted, F_OK) != 0 && errno == ENOENT;
  }

  // An old map is no problem before the other nodes could have had theirs.
  [[nodiscard]] std::string committed() const {
    const auto json = object_in(kCommitted);
    if (!json) return {};  // no map was handed to the cluster, or the shared tree is gone
    int64_t when = 0;
    uint32_t number = 0;
    uint32_t generation = 0;
    try {
      when = json->at("when");
      number = json->at("number");
      generation = json->at("generation");
    } catch (const json::Json::exception&) {
      return {};  // the same for all nodes
    }
    if (time(nullptr) - when <= settings_.number("CLUSTER:fence seconds") ||
        !is_older(number, generation)) {
      return {};
    }
    return fmt::format(
        "the map is an old one: the cluster has map {}, generation {}; \"journalctl -u "
        "tavrix-clusterd\" says what keeps this node from it",
        number, generation);
  }

  // A number only grows, and a rollback has an older generation under a new number.
  [[nodiscard]] bool is_older(uint32_t number, uint32_t generation) const {
    const auto word = word_of(health_.node);
    if (word && word->boot == files::this_boot()) return word->number < number;
    return generation_ && *generation_ < generation;
  }

  // A mark of this period saves the look at all processes, which is most of the cost of a call. So
  // a sweeper that was killed is noticed one period later.
  [[nodiscard]] std::string sweeper() const {
    const int64_t period =
        is_filled() ? std::max(1, block_->get()[PARAM_FLUSH_PERIOD].value.intval) : 1;
    auto worked = written_at(sweeper::kRunningMark);
    if (is_node()) {
      worked = std::max(worked, written_at(fmt::format("{}/{}", kRunningFolder, health_.node)));
    }
    const int64_t age = worked ? time(nullptr) - *worked : 0;
    if (worked && std::abs(age) <= period + kSlack) return {};
    if (status::processes_of("tavrix-sweeper").empty()) {
      return "tavrix-sweeper does not run, so events stay in memory; \"systemctl start "
             "tavrix-sweeper\"";
    }
    if (age <= 3 * period + kPatience) return {};
    return fmt::format(
        "tavrix-sweeper has not worked for {}, and its period is {}; \"systemctl restart "
        "tavrix-sweeper\"",
        text::counted(age, "second"), text::counted(period, "second"));
  }

  std::string staging() {
    if (!is_filled()) return {};
    const std::string folder = block_->get()[PARAM_STAGING_DIR].value.strval;
    struct statvfs disk {};
    if (statvfs(folder.c_str(), &disk) != 0) {
      return fmt::format("{}: {}; events cannot be flushed", folder, std::strerror(errno));
    }
    if (access((folder + "/.").c_str(), W_OK | X_OK) != 0) {
      return fmt::format("{}: {}; events cannot be flushed", folder, std::strerror(errno));
    }
    const uint64_t free = uint64_t{disk.f_bavail} * disk.f_frsize;
    const bool has_room = free >= sweeper::buffer_fill().used + kLeastSpace &&
                          (disk.f_files == 0 || disk.f_favail > 0);
    if (has_room) return {};
    std::string full = fmt::format("{}: the disk is full, and events stay in memory", folder);
    if (!is_node()) return full;
    health_.notes.push_back({"space", std::move(full)});
    return {};
  }

  void alarms() {
    for (const auto& [name, path, sentence] :
         {std::tuple("sync-off", TAVRIX_SYNC_OFF_PATH, "events were lost"),
          std::tuple("rescan", TAVRIX_RESCAN_PATH, "the agent is asked for a rescan")}) {
      if (access(path, F_OK) == 0) {
        health_.notes.push_back({name, fmt::format("{}: {}", path, sentence)});
      }
    }
  }

  Health health_;
  settings::ServiceSettings settings_;
  std::string no_block_;  // before the block, whose search fills it
  std::optional<ctl::ParameterBlock> block_;
  std::optional<uint32_t> generation_;
};

}  // namespace

std::string Health::problem() const {
  for (const Check& check : checks) {
    if (!check.problem.empty()) return check.problem;
  }
  return {};
}

Health look_at_health(const std::string& settings_file) { return Look(settings_file).take(); }

Health health_without_tree(const std::string& settings_file) {
  return Look(settings_file).take_without_tree();
}

}  // namespace tavrix::cluster
