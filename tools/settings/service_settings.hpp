// SPDX-License-Identifier: LGPL-3.0-or-later
// The settings that one service alone reads. They stand in tavrix.conf in a section of that
// service, and not in the shared block, whose layout other programs know.
//
// A wrong value never keeps a service down: it says so, and the shipped value counts.
#pragma once

#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/ctl/settings.hpp"

namespace tavrix::settings {

namespace service_settings {

// The index of a row that has no place in the block.
inline constexpr auto kNotInBlock = PARAM_MAX_INDEX;
inline constexpr Use kLoader = {"tavrix-loader, tavrixctl map", "when the loader is reloaded"};
inline constexpr Use kHistorian = {"tavrix-historian", "when the historian is reloaded"};
inline constexpr Use kCluster = {"the services, tavrixctl", "when the services are restarted"};

}  // namespace service_settings

// A row makes the entry in tavrix.conf, in the manual pages, and in "tavrixctl config show".
inline constexpr Setting kServiceSettings[] = {
    settings_table::number(
        service_settings::kNotInBlock, "LOADER:kept maps", {0, 1000, "maps"}, "10",
        service_settings::kLoader,
        "The number of maps that are kept in /etc/tavrix/maps, the current one among them; 0 keeps "
        "none.",
        "The oldest goes first. \"tavrixctl map history\" lists them."),
    settings_table::number(
        service_settings::kNotInBlock, "LOADER:hold removed folders pct", {0, 100, "per cent"},
        "100", service_settings::kLoader,
        "A map that removes more than this share of the folders is held until somebody approves "
        "it; 100 holds none.",
        "A folder that moves is not removed."),
    settings_table::number(
        service_settings::kNotInBlock, "LOADER:hold changed users pct", {0, 100, "per cent"}, "100",
        service_settings::kLoader,
        "A map by which more than this share of the users gain or lose a right is held until "
        "somebody approves it; 100 holds none.",
        "The users are those of the group list map who have an account."),
    settings_table::text(service_settings::kNotInBlock, "HISTORIAN:database",
                         "/var/lib/tavrix/history/history.db", service_settings::kHistorian,
                         "The database of the history.",
                         "Its folder is made. A database that exists stays where it is."),
    settings_table::text(service_settings::kNotInBlock, "HISTORIAN:group", "root",
                         service_settings::kHistorian,
                         "The group whose members may read the history, besides root."),
    settings_table::number(service_settings::kNotInBlock, "HISTORIAN:keep days", {0, 36500, "days"},
                           "365", service_settings::kHistorian,
                           "Older records are removed; 0 keeps them whatever their age."),
    settings_table::number(
        service_settings::kNotInBlock, "HISTORIAN:keep megabytes", {0, kNoLimit, "MiB"}, "4096",
        service_settings::kHistorian,
        "The oldest records are removed while the database is larger; 0 sets no limit.",
        "Ten million records take about 4 GiB."),
    settings_table::number(service_settings::kNotInBlock, "HISTORIAN:mass deletions",
                           {0, kNoLimit, "files and folders"}, "1000", service_settings::kHistorian,
                           "More deletions than this by one user, within the seconds below, are "
                           "reported; 0 reports none."),
    settings_table::number(service_settings::kNotInBlock, "HISTORIAN:mass deletions seconds",
                           {1, 86400, "seconds"}, "60", service_settings::kHistorian,
                           "The time in which those deletions are counted."),
    settings_table::number(service_settings::kNotInBlock, "HISTORIAN:mass renames",
                           {0, kNoLimit, "files"}, "200", service_settings::kHistorian,
                           "More files than this that one user gives the same new ending, within "
                           "the seconds below, are reported; 0 reports none."),
    settings_table::number(service_settings::kNotInBlock, "HISTORIAN:mass renames seconds",
                           {1, 86400, "seconds"}, "60", service_settings::kHistorian,
                           "The time in which those renames are counted."),
    settings_table::yes_or_no(
        service_settings::kNotInBlock, "CLUSTER:enabled", "no", service_settings::kCluster,
        "With yes, this machine is one of several nodes that serve one tree.",
        "The nodes meet in /tavrix/.conf/cluster, and a node is known by its host name. Its dump "
        "files go "
        "into folders of that name below the staging dir and the auditing dir."),
    settings_table::number(
        service_settings::kNotInBlock, "CLUSTER:commit seconds", {1, 3600, "seconds"}, "30",
        service_settings::kCluster,
        "A map waits so long for nodes that are healthy and have not prepared it; then it becomes "
        "current without them."),
    settings_table::number(
        service_settings::kNotInBlock, "CLUSTER:fence seconds", {1, 3600, "seconds"}, "10",
        service_settings::kCluster,
        "A node that has an older map than the cluster, or cannot reach the shared tree, for "
        "longer than this refuses its clients."),
};

// Finds a row by its name, in any case; null when there is none.
const Setting* find_service_setting(std::string_view name);

// The values that count for a service.
class ServiceSettings {
 public:
  // Those of the file. A file with a mistake in another setting counts no more than it does for the
  // block: the last file without one is read instead. A missing file has the shipped values.
  static ServiceSettings read(const std::string& path);

  // `name` is that of a row.
  [[nodiscard]] int32_t number(std::string_view name) const { return value(name).number; }
  [[nodiscard]] bool is_on(std::string_view name) const { return value(name).number != 0; }
  [[nodiscard]] const std::string& text(std::string_view name) const { return value(name).text; }
  [[nodiscard]] const ctl::Value& value(std::string_view name) const;

  // A line for each wrong value of a section, such as "LOADER": file, line, key, what is wrong.
  // Mistakes that keep the file from being read belong to every section.
  [[nodiscard]] std::vector<std::string> warnings(std::string_view section) const;

 private:
  std::vector<std::pair<const Setting*, ctl::Value>> values_;  // a value for each row
  // A null setting stands for the whole file.
  std::vector<std::pair<const Setting*, std::string>> wrong_values_;
};

// The file that the services and tavrixctl read.
inline constexpr const char* kSettingsFile = "/etc/tavrix/tavrix.conf";

}  // namespace tavrix::settings
