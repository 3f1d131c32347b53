// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/trustee_names.hpp"

#include <unordered_map>

#include "tools/ctl/output.hpp"
#include "tools/explain/words.hpp"

namespace tavrix::ctl {
namespace {

struct Known {
  std::string label, json;
};

Known look_up(const explain::Trustee& trustee) {
  // The reserved groups of the group list map need no name on the machine.
  const std::string name = explain::name_of(trustee);
  const char* type = trustee.is_user ? "user" : "group";
  Json json;
  json["type"] = type;
  json["id"] = trustee.id;
  if (!name.empty()) set_bytes(json, "name", name);
  return {fmt::format("{} {}", type, name.empty() ? std::to_string(trustee.id) : shown(name)),
          json::text_of(json)};
}

const Known& known_of(const explain::Trustee& trustee) {
  static std::unordered_map<uint64_t, Known> known;
  const uint64_t key = uint64_t{trustee.is_user} << 32U | trustee.id;
  const auto found = known.find(key);
  return found != known.end() ? found->second : known.emplace(key, look_up(trustee)).first->second;
}

}  // namespace

const std::string& label_of(const explain::Trustee& trustee) { return known_of(trustee).label; }
const std::string& json_text_of(const explain::Trustee& trustee) { return known_of(trustee).json; }

}  // namespace tavrix::ctl
