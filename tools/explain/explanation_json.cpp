// SPDX-License-Identifier: LGPL-3.0-or-later
// An explained decision as JSON; docs/json/check.schema.json describes it.

#include "tools/explain/operations.hpp"
#include "tools/explain/report.hpp"
#include "tools/explain/sentences.hpp"

namespace tavrix::explain {
namespace {

using json::Json;
using json::set_bytes;

Json json_of(const Trustee& trustee) {
  Json json;
  json["kind"] = trustee.is_user ? "user" : "group";
  json["id"] = trustee.id;
  if (const std::string name = name_of(trustee); !name.empty()) set_bytes(json, "name", name);
  return json;
}

Json json_of(const Entry& entry) {
  Json json = json_of(entry.trustee);
  json["mask"] = entry.mask;
  json["counts"] = entry.counts();
  json["why"] = text_of(entry.use);
  return json;
}

void set_governing(Json& json, const Governing& governing) {
  set_bytes(json, "path", governing.path);
  json["in_map"] = governing.is_in_map;
  set_bytes(json, "stands_in", governing.folder);
  set_bytes(json, "folder", governing.holder);
  json["explicit"] = governing.is_explicit;
  json["mask"] = governing.mask;
  json["entries"] = Json::array();
  for (const Entry& entry : governing.entries) json["entries"].push_back(json_of(entry));
}

const char* name_of(GroupSource source) {
  switch (source) {
    case GroupSource::kGroupMap:
      return "group map";
    case GroupSource::kMachine:
      return "machine";
    case GroupSource::kGiven:
      return "given";
    default:
      return "nowhere";
  }
}

const char* name_of(Groups::State state) {
  switch (state) {
    case Groups::State::kRead:
      return "read";
    case Groups::State::kMissing:
      return "missing";
    default:
      return "broken";
  }
}

Json json_of_caller(const Report& report) {
  const Person& person = report.question.person;
  Json json;
  if (!person.name.empty()) set_bytes(json, "user", person.name);
  json["uid"] = person.uid;
  json["gid"] = person.gid;
  const std::string kind = class_of(report.question, report.answer.facts);
  if (!kind.empty()) json["class"] = kind;
  json["groups"] = Json::array();
  for (const uint32_t gid : person.groups) {
    Json group;
    group["id"] = gid;
    if (const std::string name = name_of(Trustee{false, gid}); !name.empty()) {
      set_bytes(group, "name", name);
    }
    json["groups"].push_back(std::move(group));
  }
  json["groups_from"] = name_of(report.source);
  return json;
}

// One right an element, as few as grant together.
Json json_of(const std::vector<Gift>& gifts) {
  Json list = Json::array();
  for (const Gift& gift : gifts) {
    for (const std::string& right : rights_of(gift.rights)) {
      Json json;
      set_bytes(json, "folder", gift.folder);
      json["right"] = right;
      json["whom"] = json_of(gift.trustee);
      list.push_back(std::move(json));
    }
  }
  return list;
}

Json json_of(const std::vector<Removal>& removals) {
  Json list = Json::array();
  for (const Removal& removal : removals) {
    Json json;
    set_bytes(json, "folder", removal.folder);
    json["whom"] = json_of(removal.entry.trustee);
    json["mask"] = removal.entry.mask;
    list.push_back(std::move(json));
  }
  return list;
}

}  // namespace

void set_explanation(Json& document, const Report& report) {
  const Facts& facts = report.answer.facts;
  Json object = Json::object();
  if (const std::string type = type_of(facts); !type.empty()) object["type"] = type;
  if (facts.object) set_governing(object, *facts.object);
  document["object"] = std::move(object);
  if (facts.parent) {
    Json parent;
    set_governing(parent, *facts.parent);
    document["parent"] = std::move(parent);
  }
  document["caller"] = json_of_caller(report);
  document["group_map"] = name_of(report.group_map);
  if (const std::string area = area_of(facts); !area.empty()) document["area"] = area;
  if (facts.row) {
    document["rule"] = rule_text(facts);
    document["rule_masks"] = {{"object", facts.row->self}, {"parent", facts.row->parent}};
  }
  set_bytes(document, "reason", reason(report.question, facts));
  document["would_grant"] = json_of(report.would_grant);
  if (!report.would_grant_alone.empty()) {
    document["would_grant_alone"] = json_of(report.would_grant_alone);
  }
  document["would_refuse"] = json_of(report.would_refuse);
}

}  // namespace tavrix::explain
