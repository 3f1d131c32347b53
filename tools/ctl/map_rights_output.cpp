// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/ctl/map_rights_output.hpp"

#include <cstdio>
#include <unordered_map>

#include "tools/ctl/output.hpp"
#include "tools/ctl/trustee_names.hpp"
#include "tools/explain/words.hpp"
#include "tools/text/counted.hpp"

namespace tavrix::ctl {
namespace {

using mapdiff::Reach;
using mapdiff::RightsChange;

// Masks in words. There are few of them.
class Words {
 public:
  using Make = std::string (*)(uint32_t mask);
  explicit Words(Make make) : make_(make) {}
  [[nodiscard]] const std::string& of(uint32_t mask) {
    const auto [place, is_new] = known_.try_emplace(mask);
    if (is_new) place->second = make_(mask);
    return place->second;
  }

 private:
  Make make_;
  std::unordered_map<uint32_t, std::string> known_;
};

// The part of a line that names the place. Changes at one place follow each other.
class Beginning {
 public:
  using Make = std::string (*)(const std::string& path);
  explicit Beginning(Make make) : make_(make) {}
  [[nodiscard]] const std::string& of(const std::string& path) {
    if (path != path_ || text_.empty()) text_ = make_(path);
    path_ = path;
    return text_;
  }

 private:
  Make make_;
  std::string path_, text_;
};

std::string shown_path(const std::string& path) { return shown(path); }

std::string json_path(const std::string& path) {
  Json json;
  set_bytes(json, "path", path);
  std::string text = json::text_of(json);
  text.pop_back();  // the bracket
  return text;
}

std::string json_rights(uint32_t mask) { return json::text_of(Json(explain::rights_of(mask))); }

// "user a, user b and user c"
void add_labels(const std::vector<explain::Trustee>& trustees, std::string& line) {
  for (std::size_t i = 0; i < trustees.size(); ++i) {
    if (i > 0) line += i + 1 == trustees.size() ? " and " : ", ";
    line += label_of(trustees[i]);
  }
}

void add_whom(const std::vector<explain::Trustee>& trustees, std::string& line) {
  line += "\"whom\":[";
  for (std::size_t i = 0; i < trustees.size(); ++i) {
    if (i > 0) line += ',';
    line += json_text_of(trustees[i]);
  }
  line += ']';
}

void put(const std::string& line) { std::fwrite(line.data(), 1, line.size(), stdout); }

}  // namespace

bool print_rights(const RightsSource& source) {
  Beginning beginning(shown_path);
  Words words(explain::rights_text);
  bool is_any = false;
  std::string line;
  source([&](const RightsChange& change) {
    is_any = true;
    line = change.reach == Reach::kBelow ? "below " : "";
    line += beginning.of(change.path);
    if (change.reach == Reach::kFolderAndBelow) line += " and below";
    line += ": ";
    add_labels(*change.whom, line);
    const std::size_t people = change.whom->size();
    if (change.gained != 0) {
      line.append(text::verb(people, " gains ", " gain ")).append(words.of(change.gained));
    }
    if (change.lost != 0) {
      if (change.gained != 0) line += ';';
      line.append(text::verb(people, " loses ", " lose ")).append(words.of(change.lost));
    }
    line += '\n';
    put(line);
  });
  if (!is_any) put("nobody gains or loses a right\n");
  return is_any;
}

bool print_rights_items(const RightsSource& source) {
  static constexpr const char* kReaches[] = {"folder", "below", "folder and below"};
  Beginning beginning(json_path);
  Words words(json_rights);
  bool is_any = false;
  std::string line;
  source([&](const RightsChange& change) {
    line = is_any ? ",\n    " : "\n    ";
    is_any = true;
    line.append(beginning.of(change.path)).append(",\"reach\":\"");
    line.append(kReaches[static_cast<int>(change.reach)]).append("\",");
    add_whom(*change.whom, line);
    line.append(",\"gained\":").append(std::to_string(change.gained));
    line.append(",\"gained_rights\":").append(words.of(change.gained));
    line.append(",\"lost\":").append(std::to_string(change.lost));
    line.append(",\"lost_rights\":").append(words.of(change.lost)).append("}");
    put(line);
  });
  return is_any;
}

}  // namespace tavrix::ctl
