// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/explain/operations.hpp"

#include <strings.h>
#include <algorithm>
#include <array>

namespace tavrix::explain {
namespace {

struct Operation {
  const char* name;
  e_fsop_type op;
};
constexpr std::array<Operation, 16> kOperations = {{
    {"create", FSOP_CREATE},
    {"open-read", FSOP_OPEN_READ},
    {"open-write", FSOP_OPEN_WRITE},
    {"open-chattr", FSOP_OPEN_CHATTR},
    {"opendir", FSOP_OPENDIR},
    {"readdir", FSOP_READDIR},
    {"unlink", FSOP_UNLINK},
    {"rename-src", FSOP_RENAME_SRC},
    {"rename-dest", FSOP_RENAME_DEST},
    {"move-src", FSOP_MOVE_SRC},
    {"move-dest", FSOP_MOVE_DEST},
    {"stat", FSOP_STAT},
    {"lstat", FSOP_LSTAT},
    {"mkdir", FSOP_MKDIR},
    {"rmdir", FSOP_RMDIR},
    {"chdir", FSOP_CHDIR},
}};

// Everybody may open a folder for writing and for reading, so of a folder people ask something
// else: to write is to make a file in it, to read is to list it.
struct Word {
  const char* word;
  e_fsop_type file, folder, missing;
  bool is_in_folder;  // the folder's operation is about a new object in it
};
constexpr std::array<Word, 5> kWords = {{
    {"read", FSOP_OPEN_READ, FSOP_OPENDIR, FSOP_OPEN_READ, false},
    {"write", FSOP_OPEN_WRITE, FSOP_CREATE, FSOP_CREATE, true},
    {"delete", FSOP_UNLINK, FSOP_RMDIR, FSOP_UNLINK, false},
    {"list", FSOP_OPENDIR, FSOP_OPENDIR, FSOP_OPENDIR, false},
    {"rename", FSOP_RENAME_SRC, FSOP_RENAME_SRC, FSOP_RENAME_SRC, false},
}};

constexpr const char* kNewFile = "new file";

Asked operation_of(const Word& word, e_file_type object) {
  switch (object) {
    case FSTYPE_FILE:
      return {word.file, ""};
    case FSTYPE_FOLDER:
      return {word.folder, word.is_in_folder ? kNewFile : ""};
    default:
      return {word.missing, ""};
  }
}

}  // namespace

std::optional<Asked> operation_for(std::string word, e_file_type object) {
  std::replace(word.begin(), word.end(), '_', '-');
  if (strncasecmp(word.c_str(), "fsop-", 5) == 0) word.erase(0, 5);
  for (const Operation& operation : kOperations) {
    if (strcasecmp(operation.name, word.c_str()) == 0) return Asked{operation.op, ""};
  }
  for (const Word& known : kWords) {
    if (strcasecmp(known.word, word.c_str()) == 0) return operation_of(known, object);
  }
  return std::nullopt;
}

std::string name_of(e_fsop_type op) {
  const auto found = std::find_if(kOperations.begin(), kOperations.end(),
                                  [op](const Operation& operation) { return operation.op == op; });
  return found == kOperations.end() ? "" : found->name;
}

std::vector<std::string> exact_operations() {
  std::vector<std::string> names;
  for (const Operation& operation : kOperations) names.emplace_back(operation.name);
  return names;
}

std::vector<std::string> words_of_people() {
  std::vector<std::string> words{"create"};
  for (const Word& word : kWords) words.emplace_back(word.word);
  return words;
}

}  // namespace tavrix::explain
