// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/historian/links.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <memory>
#include <set>
#include <string_view>
#include <tuple>

#include "tools/files/durable.hpp"
#include "tools/historian/paths.hpp"
#include "utils/staging/history_link.hpp"

namespace tavrix::historian {
namespace {

constexpr int64_t kMicros = 1'000'000;
constexpr int kNamesToTry = 1000;

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};

std::string path_of(const std::string& name) { return std::string(kLinks) + "/" + name; }

template <typename Visit>
void each_name(const std::string& folder, Visit visit) {
  const std::unique_ptr<DIR, CloseFolder> open_folder(opendir(folder.c_str()));
  if (open_folder == nullptr) return;
  while (const dirent* entry = readdir(open_folder.get())) {
    if (entry->d_name[0] != '.') visit(std::string(entry->d_name));
  }
}

// The number that all of the text is, or -1.
int64_t number_in(std::string_view text) {
  int64_t number = -1;
  const auto end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, number);
  return error == std::errc() && stop == end ? number : -1;
}

// A link's name without its kind: "FOLDER.pending_...", or the name of the dump file alone.
struct NameParts {
  std::string_view folder, dump;
};
NameParts parts_of(std::string_view name) {
  const std::string_view rest = name.substr(name.find('.') + 1);
  const auto end = rest.rfind("." TAVRIX_DUMP_FILE_PREFIX);
  if (end == std::string_view::npos) return {{}, rest};
  return {rest.substr(0, end), rest.substr(end + 1)};
}

// The time in "pending_PID_SECONDS.MICROS[.N]"; -1 when there is none.
int64_t time_in(std::string_view name) {
  const auto process = name.find('_');
  const auto start = process == std::string_view::npos ? process : name.find('_', process + 1);
  if (start == std::string_view::npos) return -1;
  const std::string_view digits = name.substr(start + 1);
  const auto dot = digits.find('.');
  if (dot == std::string_view::npos) return -1;
  const int64_t seconds = number_in(digits.substr(0, dot));
  const std::string_view rest = digits.substr(dot + 1);
  const int64_t micros = number_in(rest.substr(0, rest.find('.')));
  return seconds < 0 || micros < 0 ? -1 : seconds * kMicros + micros;
}

int64_t time_of_file(const std::string& path) {
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0) return 0;
  return info.st_mtim.tv_sec * kMicros + info.st_mtim.tv_nsec / 1000;
}

bool read_all(int fd, std::string& bytes) {
  for (std::size_t at = 0; at < bytes.size();) {
    const ssize_t got = read(fd, bytes.data() + at, bytes.size() - at);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      if (got == 0) errno = EIO;  // it shrank
      return false;
    }
    at += static_cast<std::size_t>(got);
  }
  return true;
}

ino_t inode_of(const std::string& path) {
  struct stat info {};
  return lstat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

std::set<ino_t> refused_inodes() {
  std::set<ino_t> inodes;
  each_name(kRefused, [&inodes](const std::string& name) {
    inodes.insert(inode_of(std::string(kRefused) + "/" + name));
  });
  return inodes;
}

unsigned adopt_from(const std::string& folder, HistoryKind kind, int64_t since) {
  unsigned count = 0;
  const std::set<ino_t> refused = refused_inodes();
  each_name(folder, [&](const std::string& name) {
    const std::string path = folder + "/" + name;
    if (!name.starts_with(TAVRIX_DUMP_FILE_PREFIX) || time_of_file(path) < since) return;
    if (refused.contains(inode_of(path))) return;
    link_for_history(path.c_str(), kind, path.c_str());
    ++count;
  });
  return count;
}

}  // namespace

std::vector<Link> waiting_links() {
  std::vector<Link> links;
  each_name(kLinks, [&links](const std::string& name) {
    Link link;
    link.name = name;
    link.is_audit = name.starts_with(kAuditPrefix);
    if (!link.is_audit && !name.starts_with(kEventsPrefix)) return;
    const NameParts parts = parts_of(name);
    link.folder = parts.folder;
    link.time = time_in(parts.dump);
    if (link.time < 0) link.time = time_of_file(path_of(name));
    links.push_back(std::move(link));
  });
  std::sort(links.begin(), links.end(), [](const Link& one, const Link& other) {
    return std::tie(one.time, one.name) < std::tie(other.time, other.name);
  });
  return links;
}

Read read_link_file(const std::string& name, Content& content) {
  const Fd fd(open(path_of(name).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!fd) {
    if (errno == ENOENT) return Read::kGone;
    return errno == ELOOP || errno == ENXIO ? Read::kForeign : Read::kFailed;
  }
  struct stat info {};
  if (fstat(fd.get(), &info) != 0) return Read::kFailed;
  if (!S_ISREG(info.st_mode) || info.st_size > INT_MAX) return Read::kForeign;
  content.inode = info.st_ino;
  content.mtime = info.st_mtim.tv_sec * (kMicros * 1000) + info.st_mtim.tv_nsec;
  content.bytes.resize(static_cast<std::size_t>(info.st_size));
  return read_all(fd.get(), content.bytes) ? Read::kDone : Read::kFailed;
}

bool remove_link(const std::string& name) { return files::remove(path_of(name)); }

bool refuse_link(const std::string& name, const std::string& reason) {
  if (mkdir(kRefused, 0700) != 0 && errno != EEXIST) return false;
  for (int number = 0; number < kNamesToTry; ++number) {
    const std::string kept =
        fmt::format("{}/{}{}", kRefused, name, number == 0 ? "" : fmt::format(".{}", number));
    // The reason comes first: a kill between the two leaves a link that is refused again.
    if (files::exists(kept)) continue;
    if (!files::replace(kept + ".reason", reason + "\n", 0600)) return false;
    if (renameat2(AT_FDCWD, path_of(name).c_str(), AT_FDCWD, kept.c_str(), RENAME_NOREPLACE) == 0) {
      static_cast<void>(files::sync_folder(kRefused));
      return true;
    }
    if (errno != EEXIST) return false;
  }
  return false;
}

unsigned refused_files() {
  unsigned count = 0;
  each_name(kRefused, [&count](const std::string& name) { count += !name.ends_with(".reason"); });
  return count;
}

Folder make_links_folder() {
  if (has_links_folder()) return Folder::kThere;
  for (const char* folder : {TAVRIX_TREE, TAVRIX_CONF_FOLDER}) {
    if (mkdir(folder, folder == std::string_view(TAVRIX_TREE) ? 0755 : 0700) != 0 &&
        errno != EEXIST) {
      return Folder::kFailed;
    }
  }
  if (mkdir(kLinks, 0700) != 0) return Folder::kFailed;
  static_cast<void>(files::sync_folder(TAVRIX_CONF_FOLDER));
  return Folder::kMade;
}

bool has_links_folder() {
  struct stat info {};
  return lstat(kLinks, &info) == 0 && S_ISDIR(info.st_mode);
}

unsigned adopt_waiting_dumps(const std::vector<std::string>& staging,
                             const std::vector<std::string>& auditing, int64_t since) {
  unsigned count = 0;
  for (const std::string& folder : staging) {
    count += adopt_from(folder, HistoryKind::kEvents, since);
  }
  for (const std::string& folder : auditing) {
    count += adopt_from(folder, HistoryKind::kAudit, since);
  }
  return count;
}

Fd lock_folder(const std::string& folder) {
  Fd fd(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd && flock(fd.get(), LOCK_EX | LOCK_NB) != 0) fd.reset();
  return fd;
}

}  // namespace tavrix::historian
