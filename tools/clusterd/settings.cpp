// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/clusterd/settings.hpp"

#include <algorithm>

#include "tools/cluster/node.hpp"
#include "tools/mapkeep/settings.hpp"
#include "tools/settings/service_settings.hpp"

namespace tavrix::clusterd {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr milliseconds kLongestPeriod{1000};

}  // namespace

int64_t Settings::lease() const {
  const nanoseconds whole = fence;
  return (whole - std::min<nanoseconds>(seconds(1), whole / 4)).count();
}

milliseconds Settings::period() const {
  return std::min(kLongestPeriod,
                  std::chrono::duration_cast<milliseconds>(nanoseconds(lease())) / 4);
}

Settings read_settings(const std::string& file) {
  const auto read = settings::ServiceSettings::read(file);
  Settings result;
  result.file = file;
  result.is_enabled = read.is_on("CLUSTER:enabled");
  result.commit = seconds(read.number("CLUSTER:commit seconds"));
  result.fence = seconds(read.number("CLUSTER:fence seconds"));
  result.kept_maps = mapkeep::most_kept(read);
  result.node = cluster::this_node();
  result.warnings = read.warnings("CLUSTER");
  return result;
}

}  // namespace tavrix::clusterd
