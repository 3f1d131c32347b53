// SPDX-License-Identifier: LGPL-3.0-or-later
// The way to a verdict, in lines for people.

#include <fmt/format.h>

#include "tools/explain/operations.hpp"
#include "tools/explain/report.hpp"
#include "tools/explain/sentences.hpp"

namespace tavrix::explain {
namespace {

class Screen {
 public:
  explicit Screen(const Report& report)
      : question_(report.question), facts_(report.answer.facts), report_(report) {}

  [[nodiscard]] std::vector<std::string> lines() {
    object();
    caller();
    if (const std::string area = area_of(facts_); !area.empty()) add("area", area);
    if (facts_.object) entries("object", *facts_.object);
    if (facts_.parent) entries("parent", *facts_.parent);
    rule();
    if (facts_.is_special_path) {
      add("special", "the refusal is overturned: desktops keep such files everywhere");
    }
    changes();
    return std::move(lines_);
  }

 private:
  void add(const std::string& topic, const std::string& text) {
    lines_.push_back(fmt::format("{:<10} {}", topic, text));
  }

  void object() {
    std::string text = facts_.path.empty() ? question_.path : facts_.path;
    if (const std::string type = type_of(facts_); type == "missing") {
      text += ", which does not exist";
    } else if (!type.empty()) {
      text += ", a " + type;
    }
    if (facts_.object) {
      text += facts_.object->is_in_map
                  ? ", in the map"
                  : ", not in the map: " + facts_.object->folder + " stands in for it";
    }
    add("path", text);
  }

  void caller() {
    const Person& person = question_.person;
    std::string text = fmt::format("{} (uid {}, primary group {})", text_of(person), person.uid,
                                   name_or_id(person.gid));
    if (const std::string kind = class_of(question_, facts_); !kind.empty()) text += ", " + kind;
    add("caller", text);
    std::vector<std::string> names;
    for (const uint32_t gid : person.groups) names.push_back(name_or_id(gid));
    add("groups", (names.empty() ? "none" : joined(names)) + source());
  }

  static std::string name_or_id(uint32_t gid) {
    const std::string name = name_of(Trustee{false, gid});
    return name.empty() ? std::to_string(gid) : name;
  }

  [[nodiscard]] const char* source() const {
    switch (report_.source) {
      case GroupSource::kGroupMap:
        return " (by the group list map)";
      case GroupSource::kMachine:
        return " (by the machine)";
      case GroupSource::kGiven:
        return " (as given)";
      default:
        return "";
    }
  }

  void entries(const std::string& topic, const Governing& governing) {
    add(topic,
        governing.path + (governing.is_explicit ? ": entries of its own"
                                                : ": entries inherited from " + governing.holder));
    if (topic == "object" && facts_.type == FSTYPE_DOES_NOT_EXIST) {
      add("", "does not exist: counts as read, write and delete, so that the parent decides");
      return;
    }
    for (const Entry& entry : governing.entries) {
      add("", fmt::format("  {:<24} {:<24} {}", text_of(entry.trustee), rights_text(entry.mask),
                          text_of(entry.use)));
    }
    add("", fmt::format("  together: {}", rights_text(governing.mask)));
  }

  void rule() {
    if (!facts_.row) return;
    add("rule", fmt::format("{} {}", name_of(question_.op), rule_text(facts_)));
    add("", fmt::format("asked with {} on the object and {} on the parent: {}",
                        rights_text(facts_.row->self), rights_text(facts_.row->parent),
                        facts_.row->holds ? "holds" : "does not hold"));
  }

  void changes() {
    if (facts_.is_granted() && !report_.would_refuse.empty()) {
      add("to refuse", text_of(report_.would_refuse));
    }
    if (!facts_.is_refused()) return;
    if (report_.would_grant.empty()) {
      add("to grant", "no right in the map would grant this");
      return;
    }
    add("to grant", text_of(report_.would_grant));
    if (!report_.would_grant_alone.empty()) {
      add("", "or, for this user alone: " + text_of(report_.would_grant_alone));
    }
  }

  const Question& question_;
  const Facts& facts_;
  const Report& report_;
  std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> screen(const Report& report) { return Screen(report).lines(); }

}  // namespace tavrix::explain
