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
  Pair pair = in(work_);
  if (!is_complete(pair)) return std::nullopt;
  return pair;
}

// The size file last: a run that died between the two finds the pair incomplete in both places, and
// the agent's next one replaces it.
std::optional<Pair> Inbox::take() const {
  const Pair from = in(folder_);
  Pair to = in(work_);
  if (!is_complete(from)) return std::nullopt;
  std::error_code error;
  fs::rename(from.data, to.data, error);
  if (!error) fs::rename(from.size, to.size, error);
  if (error) return std::nullopt;
  return to;
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
