// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/private_import.hpp"

#include <fcntl.h>
#include <fmt/format.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>

#include "internal/scoped.hpp"
#include "tools/mapload/import_child.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/paths.hpp"

namespace tavrix::mapload {
namespace {

// Names of the two files in a folder that only the import sees. The import removes the names that
// it is given.
char size_name[] = "/etc/tavrix/size.json";
char data_name[] = "/etc/tavrix/data.json";

class TwoFiles {
 public:
  bool open(const std::string& size_path, const std::string& data_path, std::string& error) {
    return open(size_, size_path, error) && open(data_, data_path, error);
  }
  // Paths that reach the files wherever they lie: the folder of the map is hidden from the import.
  [[nodiscard]] std::string size() const { return path_of(size_); }
  [[nodiscard]] std::string data() const { return path_of(data_); }

  // Gives the calling process a folder of the map of its own, which goes with the process, and with
  // it the local copy that the import writes. Returns 0 or an errno.
  [[nodiscard]] int hide_map_folder() const {
    const bool is_done = unshare(CLONE_NEWNS) == 0 &&
                         mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                         mount("tmpfs", kFolder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=700") == 0 &&
                         symlink(size().c_str(), size_name) == 0 &&
                         symlink(data().c_str(), data_name) == 0;
    return is_done ? 0 : errno;
  }

 private:
  static bool open(Fd& file, const std::string& path, std::string& error) {
    file.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) error = fmt::format("{}: {}", path, std::strerror(errno));
    return static_cast<bool>(file);
  }
  static std::string path_of(const Fd& file) { return fmt::format("/proc/self/fd/{}", file.get()); }
  Fd size_, data_;
};

}  // namespace

SharedMemory::SharedMemory(std::size_t size) {
  void* address = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (address == MAP_FAILED) return;
  address_ = address;
  size_ = size;
}

SharedMemory import_privately(const std::string& size_path, const std::string& data_path,
                              std::string& error, const ImportProgress& progress) {
  ImportFailure failure;
  SharedMemory image = import_privately(size_path, data_path, failure, progress);
  error = std::move(failure.why);
  return image;
}

SharedMemory import_privately(const std::string& size_path, const std::string& data_path,
                              ImportFailure& failure, const ImportProgress& progress) {
  TwoFiles files;
  failure.may_pass = true;
  if (!files.open(size_path, data_path, failure.why)) return {};
  const auto fail_with = [&](const PassEnd& end) {
    // The kernel kills a process when memory runs out; that says nothing about the files.
    failure = {fmt::format("{}, {}: {}", size_path, data_path, end.text()),
               end.is_transient() || end.kind == PassEnd::Kind::kKilled};
    return SharedMemory();
  };
  SizePass sizes = run_size_pass(files.size().c_str(), files.data().c_str(), {});
  if (!sizes.end.ok()) return fail_with(sizes.end);
  SharedMemory image(sizes.summary.memsize);
  if (!image) {
    failure.why = fmt::format("no memory for the image of {}: {}", data_path, std::strerror(errno));
    return {};
  }
  sizes.summary.membuf = image.address();
  sizes.summary.perm_map_name_size = size_name;
  sizes.summary.perm_map_name_data = data_name;
  Supervision how;
  how.prepare = [&files] { return files.hide_map_folder(); };
  if (progress) {
    how.progress = [&] { progress(folders_done(image.address()), sizes.summary.total_fselems); };
  }
  const PassEnd end = run_data_pass(sizes.summary, how);
  if (end.ok()) return image;
  return fail_with(end);
}

}  // namespace tavrix::mapload
