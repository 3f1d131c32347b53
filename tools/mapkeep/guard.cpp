// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapkeep/guard.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "permissions/map/image.hpp"
#include "tools/ctl/map_diff_output.hpp"
#include "tools/files/durable.hpp"
#include "tools/mapdiff/people.hpp"
#include "tools/mapload/import_child.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/private_import.hpp"
#include "tools/text/counted.hpp"
#include "tools/text/moment.hpp"

namespace tavrix::mapkeep {
namespace {

constexpr const char* kWhatToDo =
    "; \"tavrixctl map diff current held\" shows what it would change, \"tavrixctl map approve\" "
    "makes it current, \"tavrixctl map reject\" removes it";

// The answer of the child, in memory that both have.
struct Answer {
  uint64_t folders, removed, added, moved, changed, touched, users;
  bool is_whole, has_touched;
};

template <typename List>
uint64_t folders_in(const List& list) {
  uint64_t folders = 0;
  for (const auto& item : list) folders += item.folders;
  return folders;
}

// Sends the child's output to a file, which is whole and synced when the call returns true.
template <typename Print>
bool print_to(const std::string& path, Print print) {
  if (std::freopen(path.c_str(), "we", stdout) == nullptr) return false;
  if (fchmod(fileno(stdout), mapload::kPrivate) != 0) return false;
  print();
  return std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && fsync(fileno(stdout)) == 0;
}

bool write_diff(const ctl::Compared& maps, const mapdiff::Difference& difference,
                const ctl::RightsSource* rights) {
  const bool is_text_good = print_to(staged(HeldMap::text_path()), [&] {
    ctl::print_difference(maps, difference);
    if (rights != nullptr) static_cast<void>(ctl::print_rights(*rights));
  });
  return is_text_good && print_to(staged(HeldMap::diff_path()), [&] {
           static_cast<void>(ctl::print_difference_json(maps, difference, rights));
         });
}

Counts counts_of(const Answer& answer) {
  Counts counts{answer.folders, answer.removed, answer.added, answer.moved, answer.changed, {}, 0};
  if (answer.has_touched) counts.touched = answer.touched;
  counts.users = answer.users;
  return counts;
}

int find_answer(const Comparison& comparison, Answer& answer) {
  const ctl::Image old_image = ctl::Image::view(comparison.old_image, "the map in force");
  const ctl::Image new_image = ctl::Image::view(comparison.new_image, "the held map");
  const ctl::Compared maps{old_image, new_image, ImageView(comparison.old_image.data()),
                           ImageView(comparison.new_image.data())};
  const mapdiff::Difference difference = mapdiff::compare(maps.old_map, maps.new_map);
  answer.folders = maps.old_map.header().total_fselems;
  answer.removed = folders_in(difference.removed);
  answer.added = folders_in(difference.added);
  answer.moved = folders_in(difference.moved);
  answer.changed = difference.changed.size();
  // Asked again for each file: all changes of two large maps would take many times their memory.
  const mapdiff::People people = mapdiff::everybody(comparison.groups);
  const ctl::RightsSource rights = [&](const auto& tell) {
    mapdiff::tell_changed_rights(maps.old_map, maps.new_map, difference, people.crowd, tell);
  };
  answer.has_touched = comparison.groups.state == explain::Groups::State::kRead;
  if (answer.has_touched) {
    answer.users = people.users;
    answer.touched = mapdiff::count_touched(rights, people.crowd);
  }
  if (comparison.limits && !excess(counts_of(answer), *comparison.limits).empty()) {
    // Without its files the difference can still be asked for.
    static_cast<void>(write_diff(maps, difference, answer.has_touched ? &rights : nullptr));
  }
  answer.is_whole = true;
  return 0;
}

std::string end_of(const mapload::PassEnd& end) {
  if (end.kind == mapload::PassEnd::Kind::kNotStarted) return std::strerror(end.error);
  if (end.kind == mapload::PassEnd::Kind::kKilled) return strsignal(end.signal);
  if (end.kind == mapload::PassEnd::Kind::kAborted) return "an assertion ended it";
  return "it ended before its answer";
}

mapload::Guarded try_again(const std::string& why) {
  return {mapload::Result::kTryAgain, "cannot compare the map with the one in force: " + why};
}

mapload::Guarded hold_back(HeldMap map, std::span<const std::byte> image) {
  const bool is_later = is_map_held();
  map.since = text::now_in_microseconds();
  map.image = facts_of(image, files::digest_of(image));
  if (!hold(map, image)) {
    return {mapload::Result::kRefused,
            fmt::format("{}, and it cannot be stored until somebody approves it: {}", map.reason,
                        std::strerror(errno))};
  }
  return {mapload::Result::kHeld,
          fmt::format("{}{}{}", map.reason,
                      is_later ? "; it takes the place of an earlier one" : "", kWhatToDo)};
}

std::string share(uint64_t part, uint64_t whole, const char* of_what) {
  return fmt::format("{} of {}", part, text::counted(whole, of_what));
}

bool is_more(uint64_t part, uint64_t whole, unsigned per_cent) {
  return part * 100 > whole * per_cent;
}

}  // namespace

std::string excess(const Counts& counts, const Limits& limits) {
  if (is_more(counts.removed, counts.folders, limits.removed_folders)) {
    return fmt::format("it removes {}, and the limit is {} per cent",
                       share(counts.removed, counts.folders, "folder"), limits.removed_folders);
  }
  if (limits.changed_users == 100) return {};
  if (!counts.touched) {
    return "the group list map cannot be read, and so nobody knows whose rights it changes";
  }
  if (is_more(*counts.touched, counts.users, limits.changed_users)) {
    return fmt::format("it changes the rights of {}, and the limit is {} per cent",
                       share(*counts.touched, counts.users, "user"), limits.changed_users);
  }
  return {};
}

std::optional<Counts> compare(const Comparison& comparison,
                              const std::function<bool()>& should_stop, Failure& failure) {
  const mapload::SharedMemory shared(sizeof(Answer));
  if (!shared) {
    failure = {std::strerror(errno), true};
    return std::nullopt;
  }
  auto& answer = *static_cast<Answer*>(shared.address());
  mapload::Supervision how;
  how.should_stop = should_stop;
  const mapload::PassEnd end =
      mapload::run_apart([&] { return find_answer(comparison, answer); }, how);
  if (answer.is_whole) return counts_of(answer);
  failure = {end_of(end), end.kind == mapload::PassEnd::Kind::kNotStarted};
  return std::nullopt;
}

mapload::Guarded judge(std::span<const std::byte> image, const Limits& limits,
                       const std::string& pair, const std::function<bool()>& should_stop) {
  const auto mark = mapload::read_mark();
  if (!limits.hold_something() || !mark) return {};
  const mapload::Tables tables = mapload::look_at_tables();
  const mapload::Segment& segment = tables.table[mark->table];
  // The first map of all changes nothing that anybody has.
  if (!mark->is(mark->table, segment)) return {};
  const mapload::Attached current(segment);
  const bool has_folder = mkdir(mapload::kKeptFolder, 0700) == 0 || errno == EEXIST;
  if (!current || !has_folder) return try_again(std::strerror(errno));
  Failure failure;
  HeldMap map;
  map.counts =
      compare({current.bytes(), image, explain::current_groups(), limits}, should_stop, failure);
  if (!map.counts && should_stop && should_stop()) return {mapload::Result::kStopped, "stopped"};
  if (!map.counts && failure.may_pass) return try_again(failure.why);
  map.reason = map.counts ? excess(*map.counts, limits)
                          : "it cannot be compared with the map in force: " + failure.why;
  // The difference of a map that passes, or half a difference.
  if (map.reason.empty() || !map.counts) clear_held_leftovers();
  if (map.reason.empty()) return {};
  map.base = mark->digest;
  map.pair = std::filesystem::absolute(pair);
  return hold_back(std::move(map), image);
}

}  // namespace tavrix::mapkeep
