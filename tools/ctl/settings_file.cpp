// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/settings_file.hpp"

#include <fmt/format.h>
#include <iniparser.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>

#include "tools/cluster/node.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::ctl {
namespace {

// The room of the parser's line buffer. The parser silently drops the rest of a longer line.
constexpr std::size_t kLongestLine = 1023;

struct Dictionary {
  void operator()(dictionary* entries) const { iniparser_freedict(entries); }
};

std::string trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(" \t\r") - first + 1));
}

std::string lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

// The value that the writer of the line means: without its quotes, and without a comment after a
// blank.
std::string meant(const std::string& raw) {
  std::string text = trimmed(raw);
  if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'')) {
    const auto end = text.find(text.front(), 1);
    if (end != std::string::npos) return text.substr(1, end - 1);
  }
  for (std::size_t at = 0; at < text.size(); ++at) {
    const bool begins_comment = text[at] == ';' || text[at] == '#';
    if (begins_comment && (at == 0 || text[at - 1] == ' ' || text[at - 1] == '\t')) {
      return trimmed(text.substr(0, at));
    }
  }
  return text;
}

// The lines of the file, read beside the parser: it reports neither the line of a key nor the parts
// of a value that it drops.
class Lines {
 public:
  struct Entry {
    int line;
    std::string name;  // "SECTION:key", as it is written
    std::string value;
  };

  Lines(const std::string& path, SettingsFile& result) : path_(path), result_(result) {
    std::ifstream in(path);
    std::string section;
    for (std::string text; std::getline(in, text);) {
      ++line_;
      take(text, section);
    }
  }

  [[nodiscard]] const std::vector<Entry>& entries() const { return entries_; }

  void error(int line, const std::string& what) { result_.errors.push_back(place(line) + what); }
  [[nodiscard]] std::string place(int line) const { return fmt::format("{}:{}: ", path_, line); }

 private:
  void take(const std::string& raw, std::string& section) {
    if (raw.size() > kLongestLine) {
      error(line_, fmt::format("the line has {} bytes; {} is the most", raw.size(), kLongestLine));
      return;
    }
    if (raw.find('\0') != std::string::npos) return error(line_, "the line holds a NUL");
    const std::string text = trimmed(raw);
    if (text.empty() || text[0] == '#' || text[0] == ';') return;
    if (text.back() == '\\') return error(line_, "lines cannot be continued");
    if (text[0] == '[') {
      const auto end = text.find(']');
      if (end == std::string::npos) return error(line_, "the section has no end");
      section = trimmed(text.substr(1, end - 1));
      return;
    }
    const auto equals = text.find('=');
    if (equals == std::string::npos) return error(line_, "neither a section nor a value");
    const std::string name = section + ":" + trimmed(text.substr(0, equals));
    if (const auto [known, is_new] = seen_.emplace(lower(name), line_); !is_new) {
      return error(line_, fmt::format("{}: given before, in line {}", name, known->second));
    }
    entries_.push_back({line_, name, meant(text.substr(equals + 1))});
  }

  const std::string& path_;
  SettingsFile& result_;
  int line_ = 0;
  std::vector<Entry> entries_;
  std::map<std::string, int> seen_;
};

void take_entry(const Lines::Entry& entry, dictionary* parsed, Lines& lines, SettingsFile& result) {
  const Setting* own = settings::find_service_setting(entry.name);
  const Setting* setting = own != nullptr ? own : find_setting(entry.name);
  if (setting == nullptr) return lines.error(entry.line, entry.name + ": no such setting");
  const std::string key = lower(entry.name);
  const char* value = iniparser_getstring(parsed, key.c_str(), nullptr);
  if (value == nullptr || entry.value != value) {
    return lines.error(
        entry.line, fmt::format("{}: \"{}\" would be read as \"{}\"; put it in quotes", entry.name,
                                entry.value, value == nullptr ? "" : value));
  }
  std::string reason;
  if (auto parsed_value = parse_value(*setting, value, reason)) {
    auto& values = own != nullptr ? result.service_values : result.values;
    values.emplace_back(setting, std::move(*parsed_value));
  } else if (own != nullptr) {
    result.wrong_service_values.push_back(
        {own, lines.place(entry.line) + own->name + ": " + reason});
  } else {
    lines.error(entry.line, entry.name + ": " + reason);
  }
}

constexpr std::string_view kCluster = "CLUSTER:enabled";
// A longer folder would cut the names of dump files.
constexpr std::size_t kLongestFolder = 200;

bool is_on(const SettingsFile& file, std::string_view name) {
  return std::ranges::any_of(file.service_values, [name](const auto& entry) {
    return entry.first->name == name && entry.second.number != 0;
  });
}

// Each node of a cluster writes its dump files into folders of its own: two nodes may give the same
// name.
void take_node(const std::string& path, SettingsFile& result) {
  if (!is_on(result, kCluster)) return;
  result.node = cluster::this_node();
  if (result.node.empty()) {
    result.errors.push_back(fmt::format(
        "{}: {}: the host name is no name of a node; give this machine one of letters, digits, "
        "'-' and '_', with hostnamectl set-hostname",
        path, kCluster));
  }
  for (const auto& [setting, value] : result.values) {
    if (!is_folder_of_node(*setting)) continue;
    if (value.text.size() + 1 + result.node.size() <= kLongestFolder) continue;
    result.errors.push_back(
        fmt::format("{}: {}: with \"/{}\" for this node the path has more than {} bytes", path,
                    setting->name, result.node, kLongestFolder));
  }
}

int say_nothing(const char* /*format*/, ...) { return 0; }

}  // namespace

bool is_folder_of_node(const Setting& setting) {
  return setting.index == PARAM_STAGING_DIR || setting.index == PARAM_AUDITING_DIR;
}

Value value_in(const SettingsFile& file, const Setting& setting) {
  const auto given =
      std::ranges::find(file.values, &setting, [](const auto& entry) { return entry.first; });
  return given != file.values.end() ? given->second : shipped_value(setting);
}

std::string shared_folder(const SettingsFile& file, e_tavrix_global_index index) {
  const auto all = settings();
  return value_in(file, *std::ranges::find(all, index, &Setting::index)).text;
}

SettingsFile read_settings_file(const std::string& path) {
  SettingsFile result;
  if (!std::ifstream(path).good()) {
    result.errors.push_back(fmt::format("{}: {}", path, std::strerror(errno)));
    return result;
  }
  Lines lines(path, result);
  if (!result.errors.empty()) return result;
  iniparser_set_error_callback(say_nothing);
  const std::unique_ptr<dictionary, Dictionary> parsed(iniparser_load(path.c_str()));
  if (parsed == nullptr) {
    result.errors.push_back(path + ": not a settings file");
    return result;
  }
  for (const auto& entry : lines.entries()) take_entry(entry, parsed.get(), lines, result);
  take_node(path, result);
  return result;
}

}  // namespace tavrix::ctl
