// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/settings/texts.hpp"

#include <algorithm>
#include <string_view>
#include <vector>

#include "tools/settings/service_settings.hpp"
#include "utils/settings_table.hpp"

namespace tavrix::settings_text {
namespace {

constexpr std::size_t kWidth = 100;

constexpr std::string_view kHead =
    "Settings of the file server. \"tavrixctl config load FILE\" puts them where every process "
    "reads "
    "them. Server processes take a copy when a client connects, tavrix-sweeper and tavrix-loader "
    "when they start and at \"systemctl reload\". A value that holds ; or # needs quotes. "
    "tavrix-loader and tavrix-historian read the sections LOADER and HISTORIAN themselves, and "
    "each "
    "service reads the section CLUSTER. "
    "\"tavrixctl config show --explain\" shows the values that are loaded, and what each is for.";

// The settings of the block, then those of the services.
std::vector<Setting> all_settings() {
  std::vector<Setting> all(std::begin(kSettings), std::end(kSettings));
  all.insert(all.end(), std::begin(settings::kServiceSettings),
             std::end(settings::kServiceSettings));
  return all;
}

std::string_view section_of(const Setting& setting) {
  const std::string_view name = setting.name;
  return name.substr(0, name.find(':'));
}

std::string_view key_of(const Setting& setting) {
  const std::string_view name = setting.name;
  return name.substr(name.find(':') + 1);
}

// The sections, in the order in which the tables first name them.
std::vector<std::string_view> sections() {
  std::vector<std::string_view> all;
  for (const Setting& setting : all_settings()) {
    const std::string_view section = section_of(setting);
    bool is_known = false;
    for (const std::string_view known : all) is_known = is_known || known == section;
    if (!is_known) all.push_back(section);
  }
  return all;
}

// "Values: 1 to 86400."; empty for a text, whose only limit is the room of an entry.
std::string limits_of(const Setting& setting) {
  if (setting.type == PARAM_VAL_TYPE_BOOLEAN) return "Values: yes or no.";
  if (setting.type != PARAM_VAL_TYPE_INT) return {};
  const std::string least = "Values: " + std::to_string(setting.least);
  if (setting.most == kNoLimit) return least + " or more.";
  const char* between = setting.most == setting.least + 1 ? " or " : " to ";
  return least + between + std::to_string(setting.most) + ".";
}

// "whole number of seconds, 1 to 86400".
std::string kind_of(const Setting& setting) {
  if (setting.type == PARAM_VAL_TYPE_BOOLEAN) return "yes or no";
  if (setting.type != PARAM_VAL_TYPE_INT) {
    return "text of at most " + std::to_string(TAVRIX_PARAM_STRVAL_SIZE - 1) + " bytes";
  }
  std::string kind = "whole number";
  if (*setting.unit != '\0') kind += std::string(", ") + setting.unit;
  const std::string limits = limits_of(setting);
  constexpr std::string_view kBefore = "Values: ";
  return kind + "; " + limits.substr(kBefore.size(), limits.size() - kBefore.size() - 1);
}

std::string explanation(const Setting& setting) {
  std::string text = setting.meaning;
  if (*setting.advice != '\0') text += std::string(" ") + setting.advice;
  return text;
}

std::string comment(std::string_view text) {
  if (text.empty()) return {};
  std::string lines;
  std::string line = "#";
  while (!text.empty()) {
    const std::string_view word = text.substr(0, text.find(' '));
    if (line.size() + 1 + word.size() > kWidth) {
      lines += line + "\n";
      line = "#";
    }
    line += " ";
    line += word;
    text.remove_prefix(std::min(word.size() + 1, text.size()));
  }
  return lines + line + "\n";
}

// Puts each sentence on a line of its own, as manual pages are written.
std::string sentences(std::string text) {
  if (text.empty()) return {};
  for (std::size_t at = text.find(". "); at != std::string::npos; at = text.find(". ", at)) {
    text[at + 1] = '\n';
  }
  return text + "\n";
}

}  // namespace

std::string shipped_file() {
  std::string file = comment(kHead);
  for (const std::string_view section : sections()) {
    file.append("\n[").append(section).append("]\n");
    bool is_first = true;
    for (const Setting& setting : all_settings()) {
      if (section_of(setting) != section) continue;
      if (!is_first) file += "\n";
      is_first = false;
      file += comment(explanation(setting)) + comment(limits_of(setting));
      file.append(key_of(setting)).append(" = ").append(setting.shipped).append("\n");
    }
  }
  return file;
}

std::string manual_items() {
  std::string items;
  for (const std::string_view section : sections()) {
    for (const Setting& setting : all_settings()) {
      if (section_of(setting) != section) continue;
      items.append(".It Li ")
          .append(setting.name)
          .append(" = ")
          .append(setting.shipped)
          .append("\n");
      items += sentences(explanation(setting)) + sentences(limits_of(setting));
    }
  }
  return items;
}

std::string page_items() {
  std::string items;
  for (const std::string_view section : sections()) {
    items.append(".Ss The section [").append(section).append("]\n.Bl -tag -width Ds\n");
    for (const Setting& setting : all_settings()) {
      if (section_of(setting) != section) continue;
      items.append(".It Li ").append(key_of(setting)).append("\n");
      items += sentences(explanation(setting));
      items += ".Bl -tag -width \"a change counts\" -compact\n";
      items += ".It values\n" + kind_of(setting) + "\n";
      items.append(".It shipped\n").append(setting.shipped).append("\n");
      items.append(".It read by\n").append(setting.use.readers).append("\n");
      items.append(".It a change counts\n").append(setting.use.counts).append("\n.El\n");
    }
    items += ".El\n";
  }
  return items;
}

}  // namespace tavrix::settings_text
