// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/members.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"

namespace tavrix::cluster {
namespace {

namespace fs = std::filesystem;
using json::Json;

constexpr std::string_view kEnd = ".json";

std::string file_of(const char* folder, const std::string& node) {
  return fmt::format("{}/{}{}", folder, node, kEnd);
}

// The nodes that have a file of that ending in a folder.
void add_nodes(const char* folder, std::string_view end, std::set<std::string>& nodes) {
  std::error_code error;
  for (fs::directory_iterator entry(folder, error), last; !error && entry != last;
       entry.increment(error)) {
    std::string name = entry->path().filename();
    if (!name.ends_with(end)) continue;
    name.resize(name.size() - end.size());
    if (is_node_name(name) && !name.ends_with(".new")) nodes.insert(name);
  }
}

std::optional<Staged> staged_of(const std::string& node) {
  const std::string path = file_of(kStagedFolder, node);
  const auto json = object_in(path);
  if (!json) return std::nullopt;
  Staged staged;
  try {
    staged.records = json->at("records");
    staged.bytes = json->at("bytes");
  } catch (const Json::exception&) {
    return std::nullopt;
  }
  staged.written = written_at(path).value_or(0);
  return staged;
}

}  // namespace

std::optional<int64_t> written_at(const std::string& path) {
  struct stat info {};
  if (stat(path.c_str(), &info) != 0) return std::nullopt;
  return info.st_mtim.tv_sec;
}

std::optional<Json> object_in(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  Json json = Json::parse(std::istreambuf_iterator<char>(in), {}, nullptr, false);
  if (!json.is_object()) return std::nullopt;
  return json;
}

std::optional<Word> word_of(const std::string& node) {
  const std::string path = file_of(kNodesFolder, node);
  const auto json = object_in(path);
  if (!json) return std::nullopt;
  Word word;
  try {
    word.boot = json->at("boot");
    word.time = json->at("time");
    word.number = json->at("number");
    word.generation = json->at("generation");
    word.prepared = json->at("prepared");
    word.settings_hash = json->at("settings_hash");
    word.smb_conf_hash = json->at("smb_conf_hash");
    word.group_map_hash = json->at("group_map_hash");
    word.problems = json->at("problems").get<std::vector<std::string>>();
  } catch (const Json::exception&) {
    return std::nullopt;  // a word of another release
  }
  word.written = written_at(path).value_or(0);
  return word;
}

Member member(const std::string& node) {
  Member member{.node = node, .address = {}, .word = word_of(node), .staged = staged_of(node)};
  std::ifstream mark(fmt::format("{}/{}", kRunningFolder, node));
  member.has_mark = mark.good();
  std::string boot;
  std::getline(mark, boot);
  std::getline(mark, member.address);
  return member;
}

std::vector<Member> members() {
  std::set<std::string> nodes;
  add_nodes(kNodesFolder, kEnd, nodes);
  add_nodes(kStagedFolder, kEnd, nodes);
  add_nodes(kRunningFolder, "", nodes);
  std::vector<Member> all;
  all.reserve(nodes.size());
  for (const std::string& node : nodes) all.push_back(member(node));
  return all;
}

bool say_staged(const std::string& node, const Staged& staged) {
  for (const char* folder : {kSharedFolder, kStagedFolder}) {
    if (mkdir(folder, 0700) != 0 && errno != EEXIST) return false;
  }
  const std::string path = file_of(kStagedFolder, node);
  const std::string fresh = fmt::format("{}/.{}", kStagedFolder, node);
  {
    std::ofstream out(fresh, std::ios::trunc);
    out << Json{{"records", staged.records}, {"bytes", staged.bytes}}.dump() << '\n';
    if (!out.flush()) return false;
  }
  return std::rename(fresh.c_str(), path.c_str()) == 0;
}

}  // namespace tavrix::cluster
