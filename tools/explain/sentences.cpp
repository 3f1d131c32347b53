// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/sentences.hpp"

#include <fmt/format.h>

#include "tools/explain/operations.hpp"

namespace tavrix::explain {
namespace {

constexpr uint32_t kSeeing =
    TAVRIX_PERM_MASK_RDONLY | TAVRIX_PERM_MASK_NAVIGATE | TAVRIX_PERM_MASK_VIEWER_ONLY;

// The rights that a row asks for on one of the two folders, and those that are there.
struct Side {
  const Governing* governing;
  uint32_t all;
  uint32_t any;
  uint32_t have;

  [[nodiscard]] bool holds() const {
    return (have & all) == all && (any == 0 || (have & any) != 0);
  }
  [[nodiscard]] bool asks() const { return (all | any) != 0; }
  [[nodiscard]] std::string missing() const {
    if ((have & all) != all) return rights_text(all & ~have);
    return "one of read, navigate and view";
  }
  [[nodiscard]] std::string wanted() const {
    return all != 0 ? rights_text(all) : "one of read, navigate and view";
  }
};

Side side_of_object(const Facts& facts) {
  const Row& row = *facts.row;
  return {facts.object ? &*facts.object : nullptr, row.needs.self_all, row.needs.self_any,
          row.self};
}
Side side_of_parent(const Facts& facts) {
  const Row& row = *facts.row;
  return {facts.parent ? &*facts.parent : nullptr, row.needs.parent_all, row.needs.parent_any,
          row.parent};
}

// "group Readers", "own entry and group Staff, inherited from Shared/Design", "no entry counts".
std::string source_of(const Governing& governing) {
  std::vector<std::string> parts;
  for (const Entry& entry : governing.entries) {
    if (!entry.counts()) continue;
    parts.push_back(entry.trustee.is_user ? "own entry" : text_of(entry.trustee));
  }
  const bool is_inherited = governing.holder != governing.path;
  if (parts.empty()) {
    return is_inherited ? "no entry of " + governing.holder + " counts" : "no entry counts";
  }
  return joined(parts) + (is_inherited ? ", inherited from " + governing.holder : "");
}

std::string may(const Person& person, const Side& side) {
  const std::string who = text_of(person);
  const Governing& governing = *side.governing;
  if (side.have == 0) {
    return fmt::format("{} has no rights on {} ({})", who, governing.path, source_of(governing));
  }
  return fmt::format("{} may {}{} {} ({})", who, side.holds() ? "" : "only ",
                     rights_text(side.have), governing.path, source_of(governing));
}

// The rule was asked with the masks of the map.
std::string by_masks(const Person& person, const std::string& op, const Facts& facts) {
  const Side object = side_of_object(facts);
  const Side parent = side_of_parent(facts);
  if (!object.asks() && !parent.asks()) {
    return fmt::format("{} of {} needs no right", op,
                       facts.type == FSTYPE_FOLDER ? "a folder"
                       : facts.type == FSTYPE_FILE ? "a file"
                                                   : "an object that does not exist");
  }
  if (facts.row->holds) {
    std::vector<std::string> parts;
    for (const Side& side : {parent, object}) {
      if (side.asks()) parts.push_back(may(person, side));
    }
    return fmt::format("{}; {} needs no more", joined(parts), op);
  }
  const Side& short_side = parent.holds() ? object : parent;
  return fmt::format("{}; {} needs {} there", may(person, short_side), op, short_side.missing());
}

// Directly below Shared the parent's mask is always navigate.
std::string by_masks_of_team_folder(const Person& person, const std::string& op,
                                    const Facts& facts) {
  Side parent = side_of_parent(facts);
  if (!parent.holds()) {
    return fmt::format(
        "only administrators make, rename and remove the folders in {}; {} needs {} "
        "there",
        facts.parent->path, op, parent.missing());
  }
  const Side object = side_of_object(facts);
  if (!object.asks()) return by_masks(person, op, facts);
  if (object.holds()) return fmt::format("{}; {} needs no more", may(person, object), op);
  return fmt::format("{}; {} needs {} there", may(person, object), op, object.missing());
}

// The rule was asked with fixed masks.
std::string by_fixed_rights(const std::string& who_may, const std::string& op, const Facts& facts) {
  if (facts.row && facts.row->holds) return fmt::format("{}; {} needs no more", who_may, op);
  const Side object = side_of_object(facts);
  const Side parent = side_of_parent(facts);
  return fmt::format("{}, and {} needs {}", who_may, op,
                     parent.holds() ? object.wanted() : parent.wanted());
}

std::string user_folder_of(const std::string& path) {
  const auto slash = path.find('/', path.find('/') + 1);
  return path.substr(0, slash);
}

std::string failure(Ground ground, const Facts& facts) {
  switch (ground) {
    case Ground::kNoMemory:
      return "there is not enough memory";
    case Ground::kBadShareRoot:
      return "the share's root is no usable path";
    case Ground::kBadGroups:
      return "the list of groups cannot be used";
    case Ground::kNoLook:
      return fmt::format("the file system does not show {}", facts.path);
    case Ground::kNoMap:
      return "there is no permission map; \"tavrixctl map import\" or \"map restore\" makes one, "
             "and "
             "\"tavrixctl status\" says more";
    default:
      return "the map cannot be read; \"tavrixctl map verify\" says more";
  }
}

std::string plain_reason(const Question& question, const Facts& facts, Ground ground) {
  const std::string who = text_of(question.person);
  const std::string op = name_of(question.op);
  switch (ground) {
    case Ground::kComputerAccount:
      return who + " is the account of a computer, and those may do nothing";
    case Ground::kReservedUser:
      return who + " is the reserved user, who may do everything";
    case Ground::kStandardUser:
      return who + " is neither administrator nor power user";
    case Ground::kClimbs:
      return "the path climbs above the share, where the file system refuses it";
    case Ground::kShareRoot:
      return "the share itself is open to everybody";
    case Ground::kWildcard:
      return "everybody may search with *";
    case Ground::kFolderToRead:
      return "everybody may open a folder for reading; \"list\" asks whether it may be listed";
    case Ground::kFileInPrivate:
      return "Private holds the users' folders and no files";
    case Ground::kAdministratorAtUserFolder:
      return by_fixed_rights("administrators may only read the users' folders themselves", op,
                             facts);
    case Ground::kNoUserFolder:
      return fmt::format("there is no folder {}", user_folder_of(facts.path));
    case Ground::kAdministratorInPrivate:
      return by_fixed_rights("administrators have all rights in the users' folders", op, facts);
    case Ground::kAnothersUserFolder:
      return fmt::format("{} belongs to another user, and {} is no administrator",
                         user_folder_of(facts.path), who);
    case Ground::kOwnUserFolder:
      return by_fixed_rights(fmt::format("{} may only read {} itself", who, facts.path), op, facts);
    case Ground::kOwnUserFolderChanged:
      return fmt::format("{} is the appliance's, and nobody changes it", facts.path);
    case Ground::kBelowOwnUserFolder:
      return fmt::format("{} belongs to {}", user_folder_of(facts.path), who);
    case Ground::kFileInShared:
      return "Shared holds team folders and no files, whoever asks";
    case Ground::kAdministratorInShared:
      return by_fixed_rights("administrators have all rights in Shared", op, facts);
    case Ground::kTeamFolder:
      return by_masks_of_team_folder(question.person, op, facts);
    case Ground::kBelowTeamFolder:
      return by_masks(question.person, op, facts);
    case Ground::kOutside:
      return fmt::format("{} lies neither in Shared nor in Private", facts.path);
    case Ground::kFileAtTop:
      return "the top level holds Shared and Private and no files";
    case Ground::kPrivateItself:
      return by_fixed_rights("administrators and power users may only read Private itself", op,
                             facts);
    case Ground::kPrivateItselfClosed:
      return "only administrators and power users see Private";
    case Ground::kSharedItself:
      return by_fixed_rights("everybody may only read Shared itself", op, facts);
    case Ground::kTopItself:
      return by_fixed_rights("everybody may only read the top level", op, facts);
    case Ground::kUnknownAtTop:
      return "the top level holds Shared and Private and nothing else";
    default:
      return failure(ground, facts);
  }
}

}  // namespace

std::string reason(const Question& question, const Facts& facts) {
  if (!facts.ground) return "the question has no answer";
  std::string text = plain_reason(question, facts, *facts.ground);
  if (facts.is_special_path) {
    text = fmt::format("{} is a bookkeeping file of a desktop, which is let through, although {}",
                       facts.path, text);
  }
  return text;
}

std::string through(const Question& question, const Facts& facts) {
  if (question.person.is_reserved) return "reserved user";
  const bool is_by_map =
      facts.ground == Ground::kTeamFolder || facts.ground == Ground::kBelowTeamFolder;
  if (is_by_map && !facts.is_special_path) {
    const Side parent = side_of_parent(facts);
    const Side object = side_of_object(facts);
    if (parent.asks() && facts.ground == Ground::kBelowTeamFolder) {
      return source_of(*parent.governing);
    }
    return object.asks() ? source_of(*object.governing) : "needs no right";
  }
  if (facts.is_administrator) return "administrator";
  if (facts.ground == Ground::kOwnUserFolder || facts.ground == Ground::kBelowOwnUserFolder) {
    return "owner of the folder";
  }
  return reason(question, facts);
}

std::string class_of(const Question& question, const Facts& facts) {
  if (question.person.is_reserved) return "reserved";
  if (!facts.is_classified) return "";
  if (facts.is_administrator) return "administrator";
  return facts.is_power_user ? "power user" : "standard user";
}

std::string area_of(const Facts& facts) {
  if (!facts.ground) return "";
  if (facts.is_special_path) return "special";
  switch (*facts.ground) {
    case Ground::kClimbs:
      return "climbs";
    case Ground::kShareRoot:
      return "root";
    case Ground::kFileInPrivate:
    case Ground::kAdministratorAtUserFolder:
    case Ground::kNoUserFolder:
    case Ground::kAdministratorInPrivate:
    case Ground::kAnothersUserFolder:
    case Ground::kOwnUserFolder:
    case Ground::kOwnUserFolderChanged:
    case Ground::kBelowOwnUserFolder:
      return "private";
    case Ground::kFileInShared:
    case Ground::kAdministratorInShared:
    case Ground::kTeamFolder:
    case Ground::kBelowTeamFolder:
      return "shared";
    case Ground::kOutside:
    case Ground::kFileAtTop:
    case Ground::kPrivateItself:
    case Ground::kPrivateItselfClosed:
    case Ground::kSharedItself:
    case Ground::kTopItself:
    case Ground::kUnknownAtTop:
      return "top";
    default:
      return "";
  }
}

std::string rule_text(const Facts& facts) {
  if (!facts.row) return "";
  const auto side = [](uint32_t all, uint32_t any, const char* where) {
    if ((all | any) == 0) return std::string();
    const std::string rights = all != 0         ? rights_text(all)
                               : any == kSeeing ? "one of read, navigate and view"
                                                : "one of " + rights_text(any);
    return fmt::format("{} on {}", rights, where);
  };
  const Needs& needs = facts.row->needs;
  const std::string parent = side(needs.parent_all, needs.parent_any, "the parent folder");
  const std::string self = side(needs.self_all, needs.self_any, "the object itself");
  if (parent.empty() && self.empty()) return "needs no right";
  return "needs " + parent + (parent.empty() || self.empty() ? "" : ", and ") + self;
}

std::string type_of(const Facts& facts) {
  if (!facts.type) return "";
  switch (*facts.type) {
    case FSTYPE_FILE:
      return "file";
    case FSTYPE_FOLDER:
      return "folder";
    default:
      return "missing";
  }
}

std::string text_of(const std::vector<Gift>& gifts) {
  std::vector<std::string> parts;
  for (const Gift& gift : gifts) {
    parts.push_back(fmt::format("give {} {} on {}", text_of(gift.trustee), rights_text(gift.rights),
                                gift.folder));
  }
  return joined(parts);
}

std::string text_of(const std::vector<Removal>& removals) {
  std::vector<std::string> parts;
  for (const Removal& removal : removals) {
    parts.push_back(fmt::format("take the entry of {} ({}) from {}", text_of(removal.entry.trustee),
                                rights_text(removal.entry.mask), removal.folder));
  }
  return joined(parts);
}

}  // namespace tavrix::explain
