// SPDX-License-Identifier: LGPL-3.0-or-later
#include "tools/mapload/recovery.hpp"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstring>
#include <optional>

#include "mkperms_shm.h"
#include "tools/files/durable.hpp"
#include "tools/mapcheck/verify.hpp"
#include "tools/mapload/load.hpp"
#include "tools/mapload/local_copy.hpp"
#include "tools/mapload/mark.hpp"
#include "tools/mapload/paths.hpp"
#include "tools/mapload/publish.hpp"
#include "tools/mapload/tables.hpp"
#include "tools/status/sentences.hpp"

namespace tavrix::mapload {
namespace {

constexpr int kNone = -1;

class Recoverer {
 public:
  explicit Recoverer(Restore restore) : restore_(restore) {}

  Recovery run() {
    tables_ = look_at_tables();
    if (tables_.error != 0) {
      errno = tables_.error;
      give_up("cannot look at the tables");
      return std::move(done_);
    }
    mark_ = read_mark();
    clear_leftovers();
    settle_copies();
    const int published = find_published();
    if (done_.try_again) return std::move(done_);
    if (published == kNone) {
      without_table();
    } else {
      keep(published);
    }
    if (served_another_) tell_servers(done_.report);
    return std::move(done_);
  }

 private:
  // --- the local copy ---------------------------------------------------------------------------

  static void clear_leftovers() {
    const std::string copy = kLocalCopy;
    const std::string mark = kMark;
    for (const std::string& path :
         {std::string(kCopyToFill), copy + ".new", mark + ".new",
          files::checksum_path(copy) + ".new", std::string(kImportFolder) + "/size.json",
          std::string(kImportFolder) + "/data.json"}) {
      static_cast<void>(files::remove(path));
    }
    rmdir(kImportFolder);
  }

  // An import that was cut off leaves two copies; the mark says which one counts.
  void settle_copies() {
    copy_ = look_at_copy(kLocalCopy);
    if (!files::exists(kCopyBefore)) return;
    const Copy before = look_at_copy(kCopyBefore);
    if (is_marked(copy_) || (!before.is_usable() && copy_.is_usable())) {
      if (!settle_copy(copy_.digest)) return trouble("cannot remove the previous local copy");
      served_another_ = true;  // the import may have died before it told the servers
      say(Weight::kInfo, "finished the last import, which was cut off at its end");
    } else if (before.is_usable()) {
      if (!take_copy_back()) return trouble("cannot bring back the previous local copy");
      copy_ = before;
      say(Weight::kWarning, "brought back the previous local copy: an import was cut off");
    }
    // Otherwise neither is a map, and both stay for the operator to look at.
  }

  [[nodiscard]] bool is_marked(const Copy& copy) const {
    return mark_ && copy.is_usable() && copy.digest == mark_->digest;
  }

  // --- the tables -------------------------------------------------------------------------------

  // Finds the published table by the mark. Without one, a program that writes no marks may have
  // published a table: a sound image that is not older than the mark, and preferably the image of
  // the local copy.
  int find_published() {
    for (const int table : {0, 1}) {
      if (mark_ && mark_->is(table, tables_.table[table])) return table;
    }
    int best = kNone;
    int best_rank = 0;
    const int first = tables_.current == 1 ? 1 : 0;
    for (const int table : {first, 1 - first}) {
      const int rank = rank_of(tables_.table[table]);
      if (rank > best_rank) {
        best = table;
        best_rank = rank;
      }
    }
    if (best != kNone) adopt(best);
    return best;
  }

  int rank_of(const Segment& segment) {
    if (segment.id == -1) return 0;
    const Attached table(segment);
    if (!table) {
      give_up("cannot attach a table");
      return 0;
    }
    if (mapcheck::verify(table.bytes()).errors() > 0) return 0;
    const files::Digest digest = files::digest_of(table.bytes());
    if (mark_ && digest == mark_->digest) return 4;
    tavrix_be_header header{};
    std::memcpy(&header, table.bytes().data(), sizeof header);
    if (mark_ && mark_->is_newer_than(header.generationnum, header.timestamp)) return 0;
    if (copy_.is_usable() && digest == copy_.digest) return 3;
    if (!copy_.is_usable()) return 2;
    return mark_ ? 0 : 1;
  }

  void adopt(int table) {
    const Attached attached(tables_.table[table]);
    mark_ =
        mark_of(table, tables_.table[table], attached.bytes(), files::digest_of(attached.bytes()));
    if (!write_mark(*mark_)) return trouble("cannot write the mark");
    say(Weight::kInfo, fmt::format("table {} has no mark: it counts as the published one", table));
  }

  void keep(int published) {
    if (!repair_index(published)) return;
    remove_table(1 - published);
    if (!repair_copy(published)) return;
    done_.status = text_of(published);
  }

  [[nodiscard]] std::string text_of(int published) const {
    const Attached table(tables_.table[published]);
    tavrix_be_header header{};
    if (table.bytes().size() >= sizeof header) {
      std::memcpy(&header, table.bytes().data(), sizeof header);
    }
    return status::current_map_text(published, header.total_fselems, header.total_aces,
                                    mark_->segment.bytes);
  }

  bool repair_index(int published) {
    if (tables_.set != -1 && tables_.current == published && tables_.initialized == 1) return true;
    if (!make_current(published)) {
      give_up("cannot repair the semaphores");
      return false;
    }
    served_another_ = true;
    const char* was = tables_.set == -1          ? "the semaphores were gone"
                      : tables_.initialized != 1 ? "the semaphores were reset"
                                                 : "the semaphores named another table";
    say(Weight::kError, fmt::format("{}: table {} is current again", was, published));
    return true;
  }

  void remove_table(int table) {
    const Segment& segment = tables_.table[table];
    if (segment.id == -1) return;
    if (!remove_segment(segment)) return trouble("cannot remove a table that is not published");
    say(Weight::kWarning, fmt::format("removed table {}, which is not the published one: left by a "
                                      "loader that died, or by another program",
                                      table));
  }

  bool repair_copy(int published) {
    if (is_marked(copy_)) {
      if (copy_.has_checksum) return true;
      if (!settle_copy(copy_.digest)) trouble("cannot write the checksum of the local copy");
      return true;
    }
    if (copy_.state == Copy::State::kUnreadable) {
      give_up(copy_.why.c_str());
      return false;
    }
    const Attached table(tables_.table[published]);
    if (!table) {
      give_up("cannot attach the current table");
      return false;
    }
    if (files::digest_of(table.bytes()) != mark_->digest) {
      fail(
          fmt::format("table {} does not match its checksum, and there is no good local copy: "
                      "hand the map over again",
                      published));
      return false;
    }
    if (!write_copy(table.bytes(), mark_->digest)) {
      fail(fmt::format("cannot write the local copy: {}", std::strerror(errno)));
      return false;
    }
    static_cast<void>(files::remove(kCopyBefore));
    say(Weight::kError,
        fmt::format("the local copy was {}: wrote it again from table {}",
                    copy_.state == Copy::State::kMissing ? "gone" : "not the published map",
                    published));
    return true;
  }

  // --- no published table -----------------------------------------------------------------------

  void without_table() {
    remove_table(0);
    remove_table(1);
    if (restore_ == Restore::kNo) return;
    if (copy_.state == Copy::State::kMissing) {
      if (mark_) {
        return fail(
            "the map is lost: neither its table nor its local copy is there; hand it over "
            "again");
      }
      done_.status = "no map yet: waiting for the first one";
      return say(Weight::kInfo, done_.status);
    }
    if (copy_.state == Copy::State::kUnreadable) return give_up(copy_.why.c_str());
    if (!copy_.is_usable()) return fail("cannot restore: " + copy_.why);
    if (restore_ != Restore::kAsOperator && mark_ &&
        mark_->is_newer_than(copy_.generation, copy_.timestamp)) {
      return fail(fmt::format(
          "cannot restore: the local copy has generation {}, and {} was published already; "
          "\"tavrixctl map restore\" makes the older one current",
          copy_.generation, mark_->generation));
    }
    if (!copy_.has_checksum) {
      say(Weight::kWarning,
          fmt::format("{} has no checksum beside it; it is used as it is", kLocalCopy));
    }
    Loaded loaded = load_copy({}, copy_);
    for (Said& said : loaded.report) done_.report.push_back(std::move(said));
    if (!loaded.ok()) {
      done_.try_again = loaded.result == Result::kTryAgain;
      return fail("cannot restore: " + loaded.text());
    }
    done_.status = "restored: " + loaded.text();
    say(Weight::kInfo, done_.status);
  }

  // --- words ------------------------------------------------------------------------------------

  void say(Weight weight, std::string text) { done_.report.push_back({weight, std::move(text)}); }
  // Reports that something is left to do although the right map is current.
  void trouble(const char* what) {
    say(Weight::kError, fmt::format("{}: {}", what, std::strerror(errno)));
    done_.good = false;
  }
  void fail(std::string text) {
    done_.good = false;
    done_.status = text;
    say(Weight::kError, std::move(text));
  }
  void give_up(const char* what) {
    done_.try_again = true;
    fail(fmt::format("{}: {}", what, std::strerror(errno)));
  }

  Restore restore_;
  Tables tables_;
  std::optional<Mark> mark_;
  Copy copy_;
  bool served_another_ = false;
  Recovery done_;
};

}  // namespace

Recovery recover(Restore restore) { return Recoverer(restore).run(); }

bool is_well() {
  const Tables tables = look_at_tables();
  if (tables.error != 0) return false;
  const auto mark = read_mark();
  if (files::exists(kCopyBefore)) return false;
  struct stat copy {};
  const bool has_copy = stat(kLocalCopy, &copy) == 0;
  if (!mark) return tables.table[0].id == -1 && tables.table[1].id == -1 && !has_copy;
  const int current = mark->table;
  return tables.set != -1 && tables.current == current && tables.initialized == 1 &&
         mark->is(current, tables.table[current]) && tables.table[1 - current].id == -1 &&
         has_copy && static_cast<std::size_t>(copy.st_size) == mark->segment.bytes &&
         files::exists(files::checksum_path(kLocalCopy));
}

int remove_stale_tables(Report& report) {
  const Tables tables = look_at_tables();
  if (tables.error != 0) {
    report.push_back({Weight::kError,
                      fmt::format("cannot look at the tables: {}", std::strerror(tables.error))});
    return -1;
  }
  const auto mark = read_mark();
  int published = tables.current == 1 ? 1 : 0;
  for (const int table : {0, 1}) {
    if (mark && mark->is(table, tables.table[table])) published = table;
  }
  const Segment& stale = tables.table[1 - published];
  if (stale.id == -1) return 0;
  if (remove_segment(stale)) return 1;
  report.push_back({Weight::kError, fmt::format("cannot remove table {}: {}", 1 - published,
                                                std::strerror(errno))});
  return -1;
}

}  // namespace tavrix::mapload
