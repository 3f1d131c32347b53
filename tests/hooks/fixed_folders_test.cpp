// SPDX-License-Identifier: LGPL-3.0-or-later
// The rules of the three hooks about fixed folders, side by side.

#include "hooks/fixed_folders.hpp"
#include "tests/support/session.hpp"

namespace tavrix::test {
namespace {

struct Verdicts {
  bool open, listing, rename;  // true: the hook refuses
  bool operator==(const Verdicts&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Verdicts& verdicts) {
  return out << "open " << verdicts.open << ", listing " << verdicts.listing << ", rename "
             << verdicts.rename;
}
constexpr Verdicts kAllRefuse{true, true, true};
constexpr Verdicts kAllGoOn{false, false, false};
constexpr Verdicts kOnlyListingRefuses{false, true, false};

class FixedFolders : public Hooks {
 protected:
  static connection_private_data_s client(int admin) {
    connection_private_data_s connection{};
    connection.groupmap.admin = admin;
    return connection;
  }
  static Verdicts verdicts_on(const std::string& name, int admin = 0) {
    const connection_private_data_s connection = client(admin);
    const std::string path = full(name);
    return {is_known_fixed_for_open(connection, name.c_str(), path.c_str()),
            is_fixed_or_unknown_for_listing(connection, name.c_str(), path.c_str(), "hook"),
            is_known_fixed_for_rename(connection, path.c_str(), "hook")};
  }
};

TEST_F(FixedFolders, AreRefusedByAllThree) {
  EXPECT_EQ(kAllGoOn, verdicts_on("Shared/Team"));
  mark_fixed("Shared/Team");
  EXPECT_EQ(kAllRefuse, verdicts_on("Shared/Team"));
}

TEST_F(FixedFolders, AreFreeForAdministrators) {
  mark_fixed("Shared/Team");
  mark_fixed("Shared/Team/Docs", "1");
  EXPECT_EQ(kAllGoOn, verdicts_on("Shared/Team", 1));
  EXPECT_EQ(kAllGoOn, verdicts_on("Shared/Team/Docs", 1));
}

TEST_F(FixedFolders, OfUnknownStampAreRefusedByTheListingAlone) {
  mark_fixed("Shared/Team", "1");
  EXPECT_EQ(kOnlyListingRefuses, verdicts_on("Shared/Team"));
  EXPECT_EQ(kOnlyListingRefuses, verdicts_on("Shared/Missing"));
  mark_fixed("Shared/Team/Docs");
  fail_call("getxattr", EIO, 1, 3);
  EXPECT_EQ(kOnlyListingRefuses, verdicts_on("Shared/Team/Docs"));
}

TEST_F(FixedFolders, AreLookedForInSharedByTheBytesOfItsName) {
  for (const char* name : {"shared", "Shared files", "Private/pat"}) {
    make_dirs(full(name));
    mark_fixed(name);
  }
  EXPECT_EQ(kAllRefuse, verdicts_on("Shared files"));
  EXPECT_EQ(kAllGoOn, verdicts_on("shared"));
  EXPECT_EQ(kAllGoOn, verdicts_on("Private/pat"));
}

TEST_F(FixedFolders, AreLookedAtForARenameWhoeverAsks) {
  reset_calls();
  verdicts_on("Shared/Team");
  EXPECT_EQ(3, calls("getxattr"));
  reset_calls();
  verdicts_on("Shared/Team", 1);
  verdicts_on("Private/pat");
  EXPECT_EQ(2, calls("getxattr")) << "the renames' alone";
}

}  // namespace
}  // namespace tavrix::test
