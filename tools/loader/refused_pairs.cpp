// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/loader/refused_pairs.hpp"

#include <sys/stat.h>
#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <sstream>

#include "tools/files/durable.hpp"

namespace tavrix::loader {
namespace {

namespace fs = std::filesystem;
using json::Json;

// The folders of the pairs, whose names sort by age. Nothing when they cannot be listed.
std::optional<std::vector<std::string>> folders_in(const std::string& refused) {
  std::vector<std::string> folders;
  std::error_code error;
  for (fs::directory_iterator entry(refused, error), end; !error && entry != end;
       entry.increment(error)) {
    folders.push_back(entry->path().string());
  }
  if (error && error != std::errc::no_such_file_or_directory) {
    errno = error.value();
    return std::nullopt;
  }
  std::sort(folders.begin(), folders.end(), std::greater<>());
  return folders;
}

void read_reason(RefusedPair& pair) {
  std::istringstream lines(files::read_whole(reason_path(pair.folder)).value_or(""));
  std::getline(lines, pair.reason);
  for (std::string line; std::getline(lines, line);) pair.details.push_back(line);
}

// A power cut may leave half a file, and the folder may be somebody else's: only findings of the
// form that readers expect are findings.
bool is_finding(const Json& finding) {
  return finding.is_object() && finding.contains("severity") && finding["severity"].is_string() &&
         finding.contains("offset") && finding["offset"].is_number_unsigned() &&
         finding.contains("text") && finding["text"].is_string();
}

std::optional<Json> findings_of(const std::string& folder) {
  const auto text = files::read_whole(findings_path(folder));
  if (!text) return std::nullopt;
  Json read = Json::parse(*text, nullptr, false);
  const auto has_count = [&read](const char* key) {
    return read.contains(key) && read[key].is_number_unsigned();
  };
  const bool is_sound = read.is_object() && has_count("errors") && has_count("warnings") &&
                        read.contains("findings") && read["findings"].is_array() &&
                        std::ranges::all_of(read["findings"], is_finding);
  if (!is_sound) return std::nullopt;
  return read;
}

void read_files(RefusedPair& pair) {
  for (const char* name : {"size.json", "data.json"}) {
    struct stat info {};
    if (stat((pair.folder + "/" + name).c_str(), &info) != 0) continue;
    pair.files.push_back({name, static_cast<uint64_t>(info.st_size)});
  }
}

RefusedPair read_pair(const std::string& folder) {
  RefusedPair pair;
  pair.folder = folder;
  // The reason is the last that is written; without it the folder's own time tells as much.
  for (const std::string& path : {reason_path(folder), folder}) {
    struct stat info {};
    if (!pair.time && stat(path.c_str(), &info) == 0) pair.time = info.st_mtim.tv_sec;
  }
  read_reason(pair);
  read_files(pair);
  pair.findings = findings_of(folder);
  return pair;
}

}  // namespace

std::string refused_folder(const std::string& inbox) { return inbox + "/refused"; }
std::string reason_path(const std::string& folder) { return folder + "/reason.txt"; }
std::string findings_path(const std::string& folder) { return folder + "/findings.json"; }

std::optional<RefusedPairs> refused_pairs(const std::string& inbox, std::size_t limit) {
  const auto folders = folders_in(refused_folder(inbox));
  if (!folders) return std::nullopt;
  RefusedPairs pairs;
  pairs.count = folders->size();
  for (std::size_t i = 0; i < std::min(limit, folders->size()); ++i) {
    pairs.newest.push_back(read_pair((*folders)[i]));
  }
  return pairs;
}

}  // namespace tavrix::loader
