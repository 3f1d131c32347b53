// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/who.hpp"

#include <utility>

#include "tavrix_session.h"
#include "tools/explain/sentences.hpp"

namespace tavrix::explain {
namespace {

// Keeps the map attached between the questions.
class Session {
 public:
  Session() noexcept { tavrix_session_begin(); }
  ~Session() { tavrix_session_end(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
};

void add(json::Json& list, const Question& question, const Asker& asker) {
  Question asked = question;
  asked.person = asker.person;
  json::Json json;
  json::set_bytes(json, "user", asker.person.name);
  json["uid"] = asker.person.uid;
  if (asker.facts.is_granted()) {
    json["through"] = through(asked, asker.facts);
    json["only_to_see"] = asker.facts.is_only_to_see;
  }
  json::set_bytes(json, "reason", reason(asked, asker.facts));
  list.push_back(std::move(json));
}

}  // namespace

Everybody ask_everybody(const Question& question, const Groups& groups,
                        const std::set<uint32_t>& reserved_uids) {
  const Session session;
  Everybody everybody;
  everybody.question = question;
  for (const groupmap::User& user : groups.map.users) {
    auto identity = person_named(user.name, groups);
    if (!identity) {
      everybody.without_account.push_back(user.name);
      continue;
    }
    Question asked = question;
    asked.person = std::move(identity->person);
    asked.person.is_reserved = reserved_uids.contains(asked.person.uid);
    Facts facts = ask(asked).facts;
    auto& list = facts.is_granted()   ? everybody.granted
                 : facts.is_refused() ? everybody.refused
                                      : everybody.failed;
    list.push_back({std::move(asked.person), std::move(facts)});
  }
  return everybody;
}

std::map<std::string, std::vector<std::string>> folded(const Everybody& everybody) {
  std::map<std::string, std::vector<std::string>> users;
  Question question = everybody.question;
  for (const Asker& asker : everybody.granted) {
    question.person = asker.person;
    const char* limit = asker.facts.is_only_to_see ? " (to see, not to open)" : "";
    users[through(question, asker.facts) + limit].push_back(asker.person.name);
  }
  return users;
}

void set_everybody(json::Json& document, const Everybody& everybody, bool with_refused) {
  document["users"] = everybody.granted.size() + everybody.refused.size();
  document["granted"] = json::Json::array();
  for (const Asker& asker : everybody.granted) {
    add(document["granted"], everybody.question, asker);
  }
  document["without_account"] = everybody.without_account;
  if (!with_refused) return;
  document["refused"] = json::Json::array();
  for (const Asker& asker : everybody.refused) {
    add(document["refused"], everybody.question, asker);
  }
}

}  // namespace tavrix::explain
