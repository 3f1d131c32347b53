// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/effective.hpp"

#include <string_view>

#include "perm_utils.h"
#include "permissions/map/image.hpp"

namespace tavrix::explain {
namespace {

constexpr uint32_t kNobody = 0xFFFFFFFEU;  // an id that no entry is about

class Tree {
 public:
  Tree(const Person& person, const void* map, const TreeWish& wish) : view_(map), wish_(wish) {
    question_.person = person;
    question_.op = FSOP_STAT;
    question_.type = FSTYPE_FOLDER;
    question_.map = map;
  }

  [[nodiscard]] std::vector<SeenFolder> seen() {
    uint32_t top = 0;
    if (find_top(top)) visit(top, wish_.path, 0);
    return std::move(seen_);
  }

 private:
  [[nodiscard]] bool find_top(uint32_t& offset) const {
    path_array* parts = nullptr;
    get_path_elem_smb4(wish_.path.c_str(), static_cast<uint32_t>(wish_.path.size() + 1), &parts);
    const bool is_found =
        find_fselem_fromname(const_cast<void*>(question_.map), parts, &offset) == SHM_MEMBE_OK;
    cleanup_path_array_smb4(&parts);
    return is_found;
  }

  // Adds the folder and what is below it; takes it back if nothing there is to be shown. The depth
  // of the tree that was asked for bounds the recursion.
  bool visit(uint32_t offset, const std::string& path, int level) {
    const std::size_t place = seen_.size();
    seen_.push_back(look_at(path, level));
    bool is_shown = is_wanted(seen_.back());
    const fs_elem_s& folder = view_.fselem(offset);
    if (level < wish_.depth && (folder.flags & FSELEM_FLAG_NO_CHILD_LIST) == 0) {
      const child_list_s& list = view_.children_of(folder);
      for (uint32_t slot = 0; slot < list.num_children; ++slot) {
        const uint32_t child = ImageView::child_at(list, slot);
        const std::string_view name = ImageView::text_of(view_.name_of(view_.fselem(child)));
        if (visit(child, path + "/" + std::string(name), level + 1)) is_shown = true;
      }
    }
    if (!is_shown) seen_.resize(place);
    return is_shown;
  }

  [[nodiscard]] SeenFolder look_at(const std::string& path, int level) {
    question_.path = TAVRIX_TREE "/" + path;
    const Facts facts = ask(question_).facts;
    return {path, level, facts.row ? facts.row->self : 0, facts.is_granted()};
  }

  [[nodiscard]] bool is_wanted(const SeenFolder& folder) const {
    const bool is_writable = (folder.mask & TAVRIX_PERM_MASK_RDWR) == TAVRIX_PERM_MASK_RDWR;
    return wish_.only_writable ? is_writable : folder.is_visible || is_writable;
  }

  const ImageView view_;
  const TreeWish& wish_;
  Question question_;
  std::vector<SeenFolder> seen_;
};

}  // namespace

std::vector<SeenFolder> tree_for(const Person& person, const void* map, const TreeWish& wish) {
  return Tree(person, map, wish).seen();
}

Person member_of(uint32_t gid, uint32_t power_users) {
  Person person;
  person.uid = person.gid = kNobody;
  person.groups = {gid, power_users};
  return person;
}

std::string letters(uint32_t mask) {
  std::string text = "rwdnv";
  for (std::size_t bit = 0; bit < text.size(); ++bit) {
    if ((mask >> bit & 1U) == 0) text[bit] = '-';
  }
  return text;
}

}  // namespace tavrix::explain
