// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/state.hpp"

#include <filesystem>

#include "tools/cluster/committed.hpp"
#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/files/checksum.hpp"

namespace tavrix::clusterd {
namespace {

namespace fs = std::filesystem;
using json::Json;
using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kLife{5};
constexpr std::string_view kEnd = ".json";

bool is_same_look(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
         a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

}  // namespace

Json json_of(const State& state) {
  Json json;
  json["node"] = state.node;
  json["boot"] = state.boot;
  json["time"] = state.time;
  json["beat"] = state.beat;
  json["number"] = state.number;
  json["generation"] = state.generation;
  json["prepared"] = state.prepared;
  json["settings_hash"] = state.settings_hash;
  json["smb_conf_hash"] = state.smb_conf_hash;
  json["group_map_hash"] = state.group_map_hash;
  json["problems"] = state.problems;
  return json;
}

State state_in(const Json& json) {
  State state;
  state.node = json.at("node");
  state.boot = json.at("boot");
  state.time = json.at("time");
  state.beat = json.at("beat");
  state.number = json.at("number");
  state.generation = json.at("generation");
  state.prepared = json.at("prepared");
  state.settings_hash = json.at("settings_hash");
  state.smb_conf_hash = json.at("smb_conf_hash");
  state.group_map_hash = json.at("group_map_hash");
  state.problems = json.at("problems").get<std::vector<std::string>>();
  return state;
}

bool write_state(const State& state) {
  const std::string path = std::string(cluster::kNodesFolder) + "/" + state.node + ".json";
  return cluster::replace_shared(path, json_of(state), state.node);
}

const std::string& FileHash::look() {
  struct stat now {};
  if (stat(path_.c_str(), &now) != 0) now = {};
  if (!is_same_look(now, seen_)) {
    seen_ = now;
    hash_ = files::digest_of_file(path_).value_or("");
  }
  return hash_;
}

void Others::look() {
  std::error_code none;
  for (const auto& entry : fs::directory_iterator(cluster::kNodesFolder, none)) {
    const std::string name = entry.path().filename();
    if (!name.ends_with(kEnd)) continue;
    const std::string node = name.substr(0, name.size() - kEnd.size());
    if (node == own_ || !cluster::is_node_name(node)) continue;
    const auto json = cluster::read_object(entry.path());
    if (!json) continue;
    try {
      State state = state_in(*json);
      const auto known = seen_.find(node);
      if (known != seen_.end() && known->second.state.beat == state.beat &&
          known->second.state.boot == state.boot) {
        continue;
      }
      seen_[node] = {std::move(state), Clock::now()};
    } catch (const Json::exception&) {
      // A word of another release: nobody waits for that node.
    }
  }
}

bool Others::is_silent(const std::string& node) const {
  const auto seen = seen_.find(node);
  return seen != seen_.end() && Clock::now() - seen->second.changed > 2 * kLife;
}

std::vector<State> Others::living() const {
  std::vector<State> states;
  for (const auto& [node, seen] : seen_) {
    if (Clock::now() - seen.changed < kLife) states.push_back(seen.state);
  }
  return states;
}

}  // namespace tavrix::clusterd
