// SPDX-License-Identifier: LGPL-3.0-or-later
// A request that makes a file or a folder and then fails: the new object is recorded.

#include "tests/samba/wire.hpp"

namespace tavrix::test {
namespace {

class MadeObjects : public WireClients {
 protected:
  static void start(const Lines& options = {}) {
    configure(options);
    start_smbd();
  }
  static std::string create(const std::string& name, const std::string& more) {
    return "me.open('" + name + "', WRITE, FILE_CREATE, " + more + ")\n";
  }
  // Nobody may write an extended attribute of the library, so this create fails after the object is
  // made.
  static std::string refused_ea() {
    return "contexts=[Context(b'ExtA', ea_list([('tavrix.fixed_folder', b'x')]))]";
  }
  static std::string endless_allocation() {
    return "contexts=[Context(b'AlSi', struct.pack('<Q', 1 << 50))]";
  }
};

TEST_F(MadeObjects, AFileWhoseAttributeIsRefused) {
  start();
  EXPECT_NE("", wire(kAnna, create("Shared/Team/new", refused_ea())));
  EXPECT_TRUE(exists(full("Shared/Team/new")));
  EXPECT_EQ((Lines{"CREATE Shared/Team/new"}), new_events());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/new"));
}

TEST_F(MadeObjects, AFolderWhoseAttributeIsRefused) {
  start();
  EXPECT_NE("", wire(kAnna, create("Shared/Team/New", "FILE_DIRECTORY_FILE, " + refused_ea())));
  EXPECT_TRUE(exists(full("Shared/Team/New")));
  EXPECT_EQ((Lines{"MKDIR Shared/Team/New"}), new_events());
  EXPECT_EQ("Anna", stamp_of("Shared/Team/New"));
}

TEST_F(MadeObjects, AFileForWhichThereIsNoRoom) {
  start({"strict allocate = yes"});
  EXPECT_NE("", wire(kAnna, create("Shared/Team/new", endless_allocation())));
  EXPECT_TRUE(exists(full("Shared/Team/new")));
  const Lines told = new_events();
  ASSERT_FALSE(told.empty());
  EXPECT_EQ("CREATE Shared/Team/new", told[0]);
  for (std::size_t i = 1; i < told.size(); ++i) EXPECT_EQ("OPEN Shared/Team/new", told[i]);
}

TEST_F(MadeObjects, AFileThatIsToBeDeletedAtOnceAndWhoseAttributeIsRefused) {
  start();
  EXPECT_NE("", wire(kAnna,
                     "me.open('Shared/Team/new', WRITE | DELETE, FILE_CREATE, "
                     "FILE_DELETE_ON_CLOSE, " +
                         refused_ea() + ")\n"));
  const Lines told = new_events();
  const Lines made{"CREATE Shared/Team/new"};
  const Lines gone{"CREATE Shared/Team/new", "UNLINK Shared/Team/new"};
  EXPECT_EQ(exists(full("Shared/Team/new")) ? made : gone, told);
}

TEST_F(MadeObjects, AreRecordedOnceAndInOrder) {
  start();
  EXPECT_EQ("", wire(kAnna,
                     "h = me.open('Shared/Team/new', WRITE, FILE_OPEN_IF); me.write(h, b'x')\n"
                     "me.close(h)\n"
                     "me.close(me.open('Shared/Team/new', WRITE, FILE_OPEN_IF))\n"
                     "me.close(me.open('Shared/Team/New', READ, FILE_OPEN_IF, 1))\n"
                     "me.close(me.open('Shared/Team/New', READ, FILE_OPEN_IF, 1))\n"));
  EXPECT_EQ((Lines{"CREATE Shared/Team/new", "OPEN Shared/Team/new", "OPEN Shared/Team/new",
                   "MKDIR Shared/Team/New"}),
            new_events())
      << "made, its time, its content";
}

// Two server processes make the same names as fast as they can.
TEST_F(MadeObjects, AreRecordedOnceWhenTwoClientsMakeThem) {
  start();
  const std::string script =
      "for i in range(200): me.close(me.open('Shared/Team/f%d' % i, WRITE, FILE_OPEN_IF))\n"
      "for i in range(100): me.close(me.open('Shared/Team/d%d' % i, READ, FILE_OPEN_IF, 1))\n";
  Child other([&] { EXPECT_EQ("", wire(kAdministrator, script)); });
  EXPECT_EQ("", wire(kAnna, script));
  EXPECT_TRUE(other.wait().ok());
  const Lines told = new_events();
  EXPECT_EQ(300U, told.size());
  EXPECT_EQ(300U, (std::set<std::string>{told.begin(), told.end()}).size());
}

}  // namespace
}  // namespace tavrix::test
