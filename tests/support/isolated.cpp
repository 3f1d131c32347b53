// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tests/support/isolated.hpp"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <filesystem>
#include <system_error>

namespace tavrix::test {
namespace {

namespace fs = std::filesystem;

const fs::path kNewRoot = "/mnt";
const fs::path kSambaLibraries = "/usr/lib/x86_64-linux-gnu/samba";
const fs::path kRealSambaLibraries = "/.samba";

void require(int result, const std::string& what) {
  if (result == 0) return;
  throw std::system_error(errno, std::generic_category(), what);
}

void mount_tmpfs(const fs::path& target) {
  require(mount("tmpfs", target.c_str(), "tmpfs", 0, "mode=0755"), "tmpfs on " + target.string());
}

void bind(const fs::path& source, const fs::path& target) {
  fs::create_directories(target);
  require(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr),
          "bind " + source.string());
}

// A folder whose entries are links to those of another one, so that entries may come and go here.
void link_entries(const fs::path& seen_as, const fs::path& from, const fs::path& into) {
  for (const auto& entry : fs::directory_iterator(from)) {
    const fs::path name = entry.path().filename();
    fs::create_symlink(seen_as / name, into / name);
  }
}

// Read-only behind links: a test that writes to the machine's users or services fails instead.
void make_etc() {
  const fs::path real = kNewRoot / ".etc";
  bind("/etc", real);
  require(mount(nullptr, real.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr),
          "read-only /etc");
  fs::create_directories(kNewRoot / "etc");
  for (const auto& entry : fs::directory_iterator("/etc")) {
    const fs::path name = entry.path().filename();
    if (name == "tavrix") continue;
    fs::create_symlink(fs::path("/.etc") / name, kNewRoot / "etc" / name);
  }
  fs::create_directories(kNewRoot / "etc/tavrix");
}

void make_root() {
  mount_tmpfs(kNewRoot);
  for (const auto& entry : fs::directory_iterator("/")) {
    const fs::path name = entry.path().filename();
    if (name == "etc" || name == "mnt" || name == "tavrix" || name == "scratch") continue;
    if (entry.is_symlink()) {
      fs::create_symlink(fs::read_symlink(entry.path()), kNewRoot / name);
    } else if (entry.is_directory()) {
      bind(entry.path(), kNewRoot / name);
    }
  }
  make_etc();
  mount_tmpfs(kNewRoot / "var/log");
  for (const char* folder : {"tavrix", "scratch", "mnt"}) fs::create_directory(kNewRoot / folder);
  fs::permissions(kNewRoot / "scratch", fs::perms::all);
}

}  // namespace

void enter_private_world() {
  const fs::path here = fs::current_path();
  require(unshare(CLONE_NEWIPC | CLONE_NEWNS), "unshare");
  require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
  make_root();
  require(chroot(kNewRoot.c_str()), "chroot");
  std::error_code ignored;
  fs::current_path(here, ignored);
  if (ignored) fs::current_path("/");
  umask(022);
}

void give_samba_library_its_name() {
  bind(kSambaLibraries, kRealSambaLibraries);
  mount_tmpfs(kSambaLibraries);
  link_entries(kRealSambaLibraries, kRealSambaLibraries, kSambaLibraries);
  const fs::path wanted = kSambaLibraries / "libsamdb-common.so.0";
  if (!fs::exists(wanted)) {
    fs::create_symlink(kRealSambaLibraries / "libsamdb-common-samba4.so.0", wanted);
  }
}

void hide_samba_library() { mount_tmpfs(kSambaLibraries); }

}  // namespace tavrix::test
