// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl doctor: each test breaks one thing and reads the sentence.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/tools/appliance.hpp"

namespace tavrix::test {
namespace {

constexpr const char* kSmbConf = "/scratch/smb.conf";
constexpr const char* kSamba = "/usr/lib/x86_64-linux-gnu/samba";

class Doctor : public Appliance {
 protected:
  void SetUp() override {
    Appliance::SetUp();
    for (const char* folder :
         {"/tavrix/Shared", "/tavrix/Private", "/scratch/staging", "/tavrix/.conf", kInbox}) {
      make_dirs(folder);
      ASSERT_EQ(0, chmod(folder, 0700));
    }
    settings(65536, 1, "auditing dir = /scratch/staging\n");
    give_samba_library_its_name();
    install_module(samba_series());
    set_huge_pages("always within_size [advise] never deny force");
    share("");
  }
  // The folder of the server's modules, of this world's own.
  static void install_module(const std::string& series) {
    const std::string folder = std::string(kSamba) + "/vfs";
    if (!exists(folder + "/tavrix.so")) {
      remove_all(folder);
      make_dirs(folder);
    }
    write_file(folder + "/tavrix.so",
               std::string("ELF\0", 4) + "TAVRIX_MODULE_FOR=Samba " + series + ", and so on");
  }
  static std::string samba_version() { return json({"status"})["versions"]["samba"]; }
  static std::string samba_series() {
    const std::string version = samba_version();
    return version.substr(0, version.rfind('.'));
  }
  static void set_huge_pages(const std::string& setting) {
    write_file("/scratch/huge", setting + "\n");
    ASSERT_EQ(0, mount("/scratch/huge", "/sys/kernel/mm/transparent_hugepage/shmem_enabled",
                       nullptr, MS_BIND, nullptr));
  }
  static void share(const std::string& more, const std::string& in_global = "") {
    write_file(kSmbConf, "[global]\n" + in_global +
                             "[tavrix]\npath = /tavrix\ncase sensitive = yes\naio read size = 0\n"
                             "aio write size = 0\nvfs objects = tavrix\n" +
                             more);
  }
  static std::vector<std::string> words() {
    return {"doctor", "--smb-conf", kSmbConf, "--dir", kInbox};
  }
  // The findings that are not well, as "level id: sentence -> advice".
  static std::vector<std::string> found() {
    std::vector<std::string> lines;
    const auto document = json(words());
    for (const auto& check : document["checks"]) {
      if (check["level"] == "well") continue;
      lines.push_back(std::string(check["level"]) + " " + std::string(check["id"]) + ": " +
                      std::string(check["sentence"]) + " -> " + std::string(check["advice"]));
    }
    return lines;
  }
  static void expect(const std::string& part) {
    const auto lines = found();
    ASSERT_EQ(1U, lines.size()) << testing::PrintToString(lines);
    EXPECT_TRUE(contains(lines[0], part)) << lines[0];
  }
  // A folder of /etc of this world's own, instead of the link to the machine's.
  static void own_systemd() {
    remove_all("/etc/systemd");
    make_dirs("/etc/systemd/system");
  }
};

TEST_F(Doctor, FindsNothingOnAnApplianceInOrder) {
  const Outcome outcome = ctl(words());
  EXPECT_EQ(0, outcome.exit_code) << outcome.out;
  EXPECT_TRUE(contains(outcome.out, "well      the folders are there, and closed to others\n"));
  EXPECT_FALSE(contains(outcome.out, "->"));
  EXPECT_EQ(std::vector<std::string>{}, found());
}

TEST_F(Doctor, FindsObjectsThatALogoutRemoves) {
  own_systemd();
  struct shmid_ds info {};
  ASSERT_EQ(0, shmctl(segment(), IPC_STAT, &info));
  info.shm_perm.uid = 1001;
  ASSERT_EQ(0, shmctl(segment(), IPC_SET, &info));
  expect("critical remove-ipc: RemoveIPC is on, and a shared object belongs to user 1001: ");
  EXPECT_EQ(2, ctl(words()).exit_code);
  write_file("/etc/systemd/logind.conf", "[Login]\nRemoveIPC=yes\n");
  make_dirs("/etc/systemd/logind.conf.d");
  write_file("/etc/systemd/logind.conf.d/50-keep.conf", "[Login]\n#RemoveIPC=yes\nRemoveIPC=no\n");
  EXPECT_EQ(std::vector<std::string>{}, found());
}

TEST_F(Doctor, FindsAUnitThatHidesTheObjects) {
  own_systemd();
  make_dirs("/etc/systemd/system/smbd.service.d");
  write_file("/etc/systemd/system/smbd.service.d/harden.conf", "[Service]\nPrivateIPC=yes\n");
  expect("critical private-ipc: /etc/systemd/system/smbd.service.d/harden.conf sets PrivateIPC");
}

TEST_F(Doctor, FindsATreeWithoutAttributes) {
  ASSERT_EQ(0, mount("ramfs", "/tavrix", "ramfs", 0, nullptr));
  for (const char* folder : {"/tavrix/Shared", "/tavrix/Private", "/tavrix/.conf"}) {
    make_dirs(folder);
    ASSERT_EQ(0, chmod(folder, 0700));
  }
  expect("critical attributes: the file system of /tavrix keeps no extended attributes");
}

TEST_F(Doctor, FindsFoldersThatAreOpenToOthers) {
  ASSERT_EQ(0, chmod("/tavrix/Shared", 0755));
  expect(
      "warning folder: /tavrix/Shared (the tree) has mode 0755: other users may get in -> chmod "
      "0700 /tavrix/Shared");
  ASSERT_EQ(0, chmod("/tavrix/Shared", 0777));
  expect("critical folder: /tavrix/Shared ");
}

TEST_F(Doctor, FindsFoldersOfOthers) {
  ASSERT_EQ(0, chown(kInbox, 1001, 1001));
  expect("critical folder: /scratch/maps (maps on their way) belongs to user 1001, not to root");
}

TEST_F(Doctor, FindsFoldersThatAreMissing) {
  remove_all("/tavrix/Private");
  expect(
      "critical folder: /tavrix/Private (the tree): No such file or directory -> install -d -m "
      "0700 "
      "/tavrix/Private");
  write_file("/tavrix/Private", "");
  expect("critical folder: /tavrix/Private is not a folder");
}

TEST_F(Doctor, KnowsWhenNothingCanComeIntoTheHistory) {
  make_dirs("/tavrix/.conf/history");
  EXPECT_TRUE(found().empty());
  ASSERT_EQ(0, mount("tmpfs", "/tavrix/.conf/history", "tmpfs", 0, "mode=0700"));
  expect("critical history: /scratch/staging and /tavrix/.conf/history are on two file systems");
}

TEST_F(Doctor, FindsSmallPages) {
  set_huge_pages("always within_size advise [never] deny force");
  expect("warning huge-pages: maps use small pages (\"never\"), which makes decisions slower");
  EXPECT_EQ(1, ctl(words()).exit_code);
}

TEST_F(Doctor, FindsThatTheComparisonOfNamesIsMissing) {
  remove_all(std::string(kSamba) + "/libsamdb-common.so.0");
  expect("critical comparison-library: Samba's comparison of names is missing");
  EXPECT_TRUE(contains(found()[0], "-> ln -sf libsamdb-common-"));
  EXPECT_TRUE(contains(found()[0], ".so.0 " + std::string(kSamba) + "/libsamdb-common.so.0"));
}

TEST_F(Doctor, FindsAModuleForAnotherServer) {
  install_module("4.1");
  expect("critical module-version: the module is built for Samba 4.1, and " + samba_version() +
         " is installed: no client can connect -> install or build the module for this Samba");
  EXPECT_TRUE(is_a_problem("module-version"));
  remove_all(std::string(kSamba) + "/vfs/tavrix.so");
  expect("warning module-version: the module is not installed: ");
}

TEST_F(Doctor, FindsWorkerThreads) {
  share("aio read size = 1\n");
  expect("warning worker-threads: share tavrix starts worker threads");
}

TEST_F(Doctor, FindsDefaultsToo) {
  write_file(kSmbConf, "[tavrix]\npath = /tavrix\nvfs objects = tavrix\n");
  const auto lines = found();
  ASSERT_EQ(2U, lines.size());
  EXPECT_TRUE(contains(lines[0], "warning worker-threads: "));
  EXPECT_TRUE(contains(lines[1], "warning case-settings: "));
}

TEST_F(Doctor, FindsCaseSettings) {
  share("case sensitive = auto\n");
  expect("warning case-settings: share tavrix scans the whole folder");
}

TEST_F(Doctor, FindsSettingsThatTheModuleRefuses) {
  share("vfs objects = tavrix streams_xattr\n");
  expect(
      "critical refused-settings: share tavrix has the module streams_xattr: nobody may connect");
  share("wide links = yes\n", "allow insecure wide links = yes\n");
  expect("critical refused-settings: share tavrix has wide links: nobody may connect");
  share("path = /scratch\n");
  expect("critical share-path: share tavrix has the path /scratch, which is not in /tavrix");
}

TEST_F(Doctor, FindsAServerWithoutAShare) {
  write_file(kSmbConf, "[other]\npath = /scratch\n");
  expect("warning share-missing: no share has the module");
  remove_all(kSmbConf);
  expect("warning server-settings: testparm cannot read the server's settings");
}

}  // namespace
}  // namespace tavrix::test
