// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/witness.hpp"

#include <memory>

#include "connection/check_perms.hpp"
#include "permissions/decision/decision.hpp"
#include "permissions/map/image.hpp"

namespace tavrix::explain {
namespace {

std::string folder_at(const ImageView& view, uint32_t offset) {
  std::string path;
  while (true) {
    const fs_elem_s& folder = view.fselem(offset);
    if ((folder.flags & FSELEM_FLAG_ROOT) != 0) break;
    path.insert(0, (path.empty() ? "" : "/"));
    path.insert(0, ImageView::text_of(view.name_of(folder)));
    offset = folder.parent_offset;
  }
  return path.empty() ? "/" : path;
}

std::string parent_of(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? "/" : path.substr(0, slash);
}

class Witness final : public Observer {
 public:
  explicit Witness(const void* map) : map_(map) {}
  Answer take() { return std::move(answer_); }

  const void* other_map() override { return map_; }
  void on_path(const char* path) override { facts().path = path; }
  void on_caller(const process_trustees_s& caller) override {
    facts().is_classified = true;
    facts().is_administrator = caller.admin != 0;
    facts().is_power_user = caller.poweruser != 0;
  }
  void on_object(e_file_type type) override { facts().type = type; }
  void on_acl(Subject subject, const void* map, const AclSource& source,
              const tavrix_acl_t& /*acl*/) override {
    const ImageView view(map);
    Governing& governing = place_of(subject).emplace();
    governing.path = subject == Subject::kObject ? facts().path : parent_of(facts().path);
    governing.folder = folder_at(view, source.match.offset);
    governing.holder = folder_at(view, source.holder);
    governing.is_in_map = source.match.code == SHM_MEMBE_OK || governing.path == "/";
    governing.is_explicit = governing.is_in_map && source.holder == source.match.offset;
    if (subject == Subject::kObject) {
      answer_.chain = Chain::to(map, source.match.offset, facts().path);
    }
  }
  void on_entry(Subject subject, const tavrix_ace_s& entry, EntryUse use) override {
    place_of(subject)->entries.push_back(
        {{entry.trustee_type == ACE_TYPE_USER, entry.trustee.uid}, entry.perm_mask, use});
  }
  void on_masks(uint32_t self, uint32_t parent) override {
    facts().object->mask = self;
    facts().parent->mask = parent;
  }
  void on_rule(const Needs& needs, uint32_t self, uint32_t parent, bool holds) override {
    facts().row = Row{needs, self, parent, holds};
  }
  void on_special_path() override { facts().is_special_path = true; }
  void on_ground(Ground ground) override { facts().ground = ground; }

 private:
  Facts& facts() { return answer_.facts; }
  std::optional<Governing>& place_of(Subject subject) {
    return subject == Subject::kObject ? facts().object : facts().parent;
  }

  const void* map_;
  Answer answer_;
};

}  // namespace

Answer ask(const Question& question) {
  std::vector<gid_t> groups(question.person.groups.begin(), question.person.groups.end());
  const auto connection = std::make_unique<connection_private_data_s>();
  connection->reserved_user = question.person.is_reserved ? 1 : 0;
  process_trustees_s& caller = connection->groupmap;
  caller.euid = question.person.uid;
  caller.egid = question.person.gid;
  caller.num_sup_gids = static_cast<int>(groups.size());
  caller.gids = groups.data();
  caller.is_computer_acct = question.person.is_computer ? 1 : 0;

  Witness witness(question.map);
  int is_nav = 0;
  auto verdict = verdict_on_account(*connection, &witness);
  if (!verdict) {
    verdict = decide(question.root.c_str(), question.path.c_str(), question.op, &caller,
                     question.type ? static_cast<int>(*question.type) : 0, &is_nav, &witness);
  }
  Answer answer = witness.take();
  answer.facts.verdict = *verdict;
  answer.facts.is_only_to_see = is_nav == 1;
  return answer;
}

}  // namespace tavrix::explain
