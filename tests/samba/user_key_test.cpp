// SPDX-License-Identifier: LGPL-3.0-or-later
// A table of sessions, and the name under which each is looked up in the group list map.

#include "samba/user_key.h"

#include <gtest/gtest.h>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

namespace tavrix::test {
namespace {

struct Row {
  const char* account;
  const char* domain;
  const char* own_domain;
  const char* guest;
  const char* key;  // null: none
};

constexpr Row kRows[] = {
    {"anna", "FILES", "FILES", nullptr, "anna"},
    {"anna", "files", "FILES", nullptr, "anna"},
    {"anna", "", "FILES", nullptr, "anna"},
    {"anna", nullptr, "FILES", nullptr, "anna"},
    {"anna", nullptr, nullptr, nullptr, "anna"},
    {"anna", "EVIL", "FILES", nullptr, "EVIL\\anna"},
    {"anna", "FILES2", "FILES", nullptr, "FILES2\\anna"},
    {"anna", "EVIL", "", nullptr, "EVIL\\anna"},
    {"anna", "EVIL", nullptr, nullptr, "EVIL\\anna"},
    {"pc7$", "EVIL", "FILES", nullptr, "EVIL\\pc7$"},
    {"max+m", "FILES", "FILES", nullptr, "max+m"},
    {"oneil@corp", "FILES", "FILES", nullptr, "oneil@corp"},
    {"o'neil", "FILES", "FILES", nullptr, "o'neil"},
    {"m\xc3\xbcller", "FILES", "FILES", nullptr, "m\xc3\xbcller"},
    {"an na", "FILES", "FILES", nullptr, "an na"},
    {"EVIL\\anna", "FILES", "FILES", nullptr, nullptr},
    {"EVIL\\anna", "EVIL", "FILES", nullptr, nullptr},
    {"", "FILES", "FILES", nullptr, nullptr},
    {nullptr, "FILES", "FILES", nullptr, nullptr},
    {"admin", "FILES", "FILES", "nobody", "nobody"},
    {"admin", "EVIL", "FILES", "nobody", "nobody"},
    {nullptr, nullptr, nullptr, "nobody", "nobody"},
    {"admin", "FILES", "FILES", "", nullptr},
};

TEST(UserKey, IsOneForEachPerson) {
  for (const Row& row : kRows) {
    const tavrix_login login{row.account, row.domain, row.own_domain, row.guest};
    errno = 0;
    const std::unique_ptr<char, decltype(&std::free)> key(tavrix_user_key(&login), &std::free);
    EXPECT_STREQ(row.key, key.get());
    EXPECT_EQ(key == nullptr ? EINVAL : 0, errno);
  }
}

}  // namespace
}  // namespace tavrix::test
