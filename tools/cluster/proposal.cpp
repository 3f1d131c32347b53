// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/cluster/proposal.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <tuple>

#include "tools/cluster/node.hpp"
#include "tools/cluster/paths.hpp"
#include "tools/files/durable.hpp"

namespace tavrix::cluster {
namespace {

namespace fs = std::filesystem;
using json::Json;

const std::string kFolder = kMapsFolder;
const std::string kNumberLock = kFolder + "/.lock";
constexpr const char* kRemoved = ".removed.";
constexpr const char* kStaged = ".staged.";

// 0 when the name is no number.
uint32_t number_of(std::string_view name) {
  uint32_t number = 0;
  const auto [end, wrong] = std::from_chars(name.data(), name.data() + name.size(), number);
  return wrong == std::errc{} && end == name.data() + name.size() ? number : 0;
}

std::optional<std::vector<std::string>> names_in(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code failure;
  for (fs::directory_iterator entry(folder, failure), end; !failure && entry != end;
       entry.increment(failure)) {
    names.push_back(entry->path().filename());
  }
  if (!failure) return names;
  errno = failure.value();
  return std::nullopt;
}

// Nothing for a folder that is being removed.
std::optional<Proposal> read_proposal(uint32_t number) {
  Proposal proposal;
  proposal.number = number;
  const auto json = read_object(proposal.path("proposal.json"));
  if (!json) return std::nullopt;
  try {
    proposal.sums = sums_in(json->at("sha256"));
    proposal.node = json->at("node");
    proposal.when = json->at("when");
  } catch (const Json::exception&) {
    return std::nullopt;
  }
  proposal.is_refused = files::exists(proposal.path("refused.json"));
  return proposal;
}

bool write_all(int fd, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t done = write(fd, bytes, size);
    if (done < 0 && errno == EINTR) continue;
    if (done < 0) return false;
    bytes += done;
    size -= static_cast<std::size_t>(done);
  }
  return true;
}

// Copies a file, synced. The digest is that of the bytes that were copied.
bool copy_file(const std::string& from, const std::string& to, files::Digest& digest) {
  const Fd in(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  const Fd out(open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
  if (!in || !out) return false;
  std::vector<char> block(1U << 20U);
  for (;;) {
    const ssize_t got = read(in.get(), block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0 || !write_all(out.get(), block.data(), static_cast<std::size_t>(got))) return false;
    if (got == 0) break;
  }
  if (fsync(out.get()) != 0) return false;
  const auto found = files::digest_of_file(to);
  if (found) digest = *found;
  return found.has_value();
}

bool make_folder(const std::string& path) {
  return mkdir(path.c_str(), 0755) == 0 || errno == EEXIST;
}

bool remove_tree(const std::string& path) {
  std::error_code failure;
  fs::remove_all(path, failure);
  if (failure) errno = failure.value();
  return !failure;
}

// An empty folder lies below the mount, without the map that this node has published.
bool is_tree_there() {
  if (files::exists(kCommitted) || !files::exists(kPublished)) return true;
  errno = ENOENT;
  return false;
}

std::optional<Answer> read_answer(const Proposal& proposal, const std::string& node) {
  const auto json = read_object(proposal.path("prepared/" + node));
  if (!json) return std::nullopt;
  try {
    Answer answer;
    answer.node = node;
    answer.refusal = json->value("refused", std::string());
    answer.image = json->value("image", std::string());
    answer.generation = json->value("generation", 0U);
    answer.timestamp = json->value("timestamp", int64_t{0});
    return answer;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

}  // namespace

std::string Proposal::path(const std::string& name) const {
  return kFolder + "/" + std::to_string(number) + "/" + name;
}

std::optional<std::vector<Proposal>> proposals() {
  const auto names = names_in(kFolder);
  if (!names && errno == ENOENT) return std::vector<Proposal>{};
  if (!names) return std::nullopt;
  std::vector<Proposal> found;
  for (const std::string& name : *names) {
    const uint32_t number = number_of(name);
    auto proposal = number > 0 ? read_proposal(number) : std::nullopt;
    if (proposal) found.push_back(std::move(*proposal));
  }
  std::ranges::sort(found, {}, &Proposal::number);
  return found;
}

bool write_answer(const Proposal& proposal, const Answer& answer) {
  Json json;
  if (answer.refusal.empty()) {
    json["ready"] = true;
    json["image"] = answer.image;
    json["generation"] = answer.generation;
    json["timestamp"] = answer.timestamp;
  } else {
    json["refused"] = answer.refusal;
  }
  return replace_shared(proposal.path("prepared/" + answer.node), json, answer.node);
}

std::vector<Answer> answers(const Proposal& proposal) {
  std::vector<Answer> found;
  for (const std::string& name :
       names_in(proposal.path("prepared")).value_or(std::vector<std::string>{})) {
    if (!is_node_name(name)) continue;
    if (auto answer = read_answer(proposal, name)) found.push_back(std::move(*answer));
  }
  std::ranges::sort(found, {}, &Answer::node);
  return found;
}

bool refuse(const Proposal& proposal, const std::string& why, const std::string& node) {
  Json json;
  json["why"] = why;
  json["node"] = node;
  json["when"] = std::time(nullptr);
  return replace_shared(proposal.path("refused.json"), json, node);
}

// The folder loses its number first, so nobody sees half a proposal.
bool remove_proposal(uint32_t number) {
  const std::string folder = kFolder + "/" + std::to_string(number);
  const std::string removed = kFolder + "/" + kRemoved + std::to_string(number);
  if (!remove_tree(removed)) return false;
  if (rename(folder.c_str(), removed.c_str()) != 0) return errno == ENOENT;
  return remove_tree(removed);
}

void clear_removed() {
  for (const std::string& name : names_in(kFolder).value_or(std::vector<std::string>{})) {
    if (name.starts_with(kRemoved)) static_cast<void>(remove_tree(kMapsFolder + ('/' + name)));
  }
}

std::optional<uint32_t> last_number() {
  const auto names = names_in(kFolder);
  const auto committed = read_committed();
  if (!names || !committed) return std::nullopt;
  uint32_t last = committed->number;
  for (const std::string& name : *names) last = std::max(last, number_of(name));
  return last;
}

HandOver::HandOver(const std::string& slot, std::string node)
    : folder_(kFolder + "/" + kStaged + slot), node_(std::move(node)) {}

// "proposal.json" comes last: with it the files are staged.
bool HandOver::stage(const Files& files) const {
  if (!make_shared_folders() || !remove_tree(folder_)) return false;
  Sums sums;
  if (!make_folder(folder_) || !make_folder(folder_ + "/prepared")) return false;
  const auto copy = [this](const std::string& from, const char* name, files::Digest& digest) {
    return from.empty() || copy_file(from, folder_ + "/" + name, digest);
  };
  if (!copy(files.size, "size.json", sums.size) || !copy(files.data, "data.json", sums.data) ||
      !copy(files.groups, kGroupsName, sums.groups) ||
      !copy(files.settings, kSettingsName, sums.settings) ||
      !copy(files.image, kImageName, sums.image)) {
    return false;
  }
  Json json;
  json["node"] = node_;
  json["when"] = std::time(nullptr);
  json["sha256"] = json_of(sums);
  return replace_shared(folder_ + "/proposal.json", json, node_) && files::sync_folder(kFolder);
}

bool HandOver::is_staged() const { return files::exists(folder_ + "/proposal.json"); }

std::optional<uint32_t> HandOver::give_number(std::optional<uint32_t> behind) const {
  if (!is_tree_there()) return std::nullopt;
  const Fd lock = lock_shared(kNumberLock, Wait::kYes);
  if (!lock) return std::nullopt;
  const auto last = last_number();
  if (!last) return std::nullopt;
  if (behind && *behind != *last) {
    errno = EAGAIN;
    return std::nullopt;
  }
  const std::string folder = kFolder + "/" + std::to_string(*last + 1);
  if (rename(folder_.c_str(), folder.c_str()) != 0 || !files::sync_folder(kFolder)) {
    return std::nullopt;
  }
  return *last + 1;
}

Fd lock_shared(const std::string& path, Wait wait) {
  Fd lock(open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0600));
  while (lock && flock(lock.get(), wait == Wait::kYes ? LOCK_EX : LOCK_EX | LOCK_NB) != 0) {
    if (errno != EINTR) lock.reset();
  }
  return lock;
}

bool make_shared_folders() {
  constexpr std::array kFolders = {kSharedFolder, kNodesFolder, kMapsFolder, kInbox};
  return is_tree_there() && make_folder(TAVRIX_CONF_FOLDER) &&
         std::ranges::all_of(kFolders, make_folder);
}

}  // namespace tavrix::cluster
