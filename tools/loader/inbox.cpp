#include "tools/loader/inbox.hpp"

#include <fmt/format.h>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <chrono>
#include <filesystem>
#include <fstream>

namespace tavrix::loader {
namespace {

namespace fs = std::filesystem;

constexpr const char* kSizeName = "size.json";
constexpr const char* kDataName = "data.json";

bool is_complete(const Pair& pair) {
  std::error_code none;
  return fs::is_regular_file(pair.size, none) && fs::is_regular_file(pair.data, none);
}

// Takes a name away, unless it is another file's by now.
void remove_if_same(const std::string& name, const std::string& file) {
  std::error_code none;
  if (fs::equivalent(name, file, none)) fs::remove(name, none);
}

// A second name for a file; where the file system has none, the file moves.
bool link_or_move(const std::string& from, const std::string& to) {
  std::error_code error;
  fs::create_hard_link(from, to, error);
  if (error) fs::rename(from, to, error);
  return !error;
}

// Seconds and a counter: two refusals of a second lie side by side.
std::string name_of_now(const std::string& folder) {
  const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
  std::tm parts{};
  gmtime_r(&now, &parts);
  const std::string name =
      fmt::format("{:04}{:02}{:02}T{:02}{:02}{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                  parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  std::string path = folder + "/" + name;
  for (int number = 2; fs::exists(path); ++number) {
    path = folder + "/" + name + "-" + std::to_string(number);
  }
  return path;
}

}  // namespace

Inbox::Inbox(std::string folder)
    : folder_(std::move(folder)), work_(folder_ + "/.work"), refused_(folder_ + "/refused") {}

Pair Inbox::in(const std::string& folder) const {
  return {folder + "/" + kSizeName, folder + "/" + kDataName};
}

std::string Inbox::prepare() const {
  std::error_code error;
  for (const std::string& folder : {folder_, work_, refused_}) {
    fs::create_directories(folder, error);
    if (error) return fmt::format("{}: {}", folder, error.message());
  }
  return {};
}

Fd Inbox::watch() const {
  Fd fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
  if (inotify_add_watch(fd.get(), folder_.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE | IN_ONLYDIR) < 0) {
    fd.reset();
  }
  return fd;
}

void Inbox::drain(const Fd& watch) {
  char events[4096];
  while (read(watch.get(), events, sizeof events) > 0) {
  }
}

std::optional<Pair> Inbox::unfinished() const {
  Pair taken = in(work_);
  if (!is_complete(taken)) {
    finish(taken);  // taken in part only, and whole in the folder; or imported already
    return std::nullopt;
  }
  leave(taken);
  return taken;
}

// Both files are in both places before they leave the folder: a run that dies on the way finds the
// pair whole here or there.
std::optional<Pair> Inbox::take() const {
  const Pair from = in(folder_);
  Pair to = in(work_);
  if (!is_complete(from)) return std::nullopt;
  finish(to);
  if (!link_or_move(from.data, to.data) || !link_or_move(from.size, to.size)) return std::nullopt;
  leave(to);
  return to;
}

// What the agent has put there meanwhile is the next pair, and stays.
void Inbox::leave(const Pair& taken) const {
  const Pair from = in(folder_);
  remove_if_same(from.data, taken.data);
  remove_if_same(from.size, taken.size);
}

std::string Inbox::refuse(const Pair& pair, const std::string& reason) const {
  std::string folder = name_of_now(refused_);
  std::error_code none;
  fs::create_directories(folder, none);
  std::ofstream(folder + "/reason.txt") << reason << '\n';
  const Pair to = in(folder);
  fs::rename(pair.size, to.size, none);
  fs::rename(pair.data, to.data, none);
  finish(pair);
  return folder;
}

void Inbox::finish(const Pair& pair) const {
  std::error_code none;
  fs::remove(pair.size, none);
  fs::remove(pair.data, none);
}

}  // namespace tavrix::loader
