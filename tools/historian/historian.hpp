// SPDX-License-Identifier: LGPL-3.0-or-later
// The historian's work: it takes the dump files that flushes link for it into the database, removes
// what is too old, and keeps the folders.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "internal/scoped.hpp"
#include "tools/historian/links.hpp"
#include "tools/historian/mass_changes.hpp"
#include "tools/historian/retention.hpp"
#include "tools/historian/settings.hpp"
#include "tools/historian/store.hpp"
#include "tools/historian/taker.hpp"
#include "tools/sweeper/trouble.hpp"

namespace tavrix::historian {

class Historian {
 public:
  explicit Historian(Settings settings);

  // Makes the folder of the links, by which the history is switched on. Also after a reload.
  bool switch_on();

  // Takes what waits and does what else is due. Returns early when `should_stop` says so; what is
  // taken until then stays taken. True when nothing is left to do.
  bool look(const std::function<bool()>& should_stop);

  // Becomes readable when a link comes; none while there is no folder to watch.
  [[nodiscard]] const Fd& changes() const { return changes_; }
  void drain_changes() const;
  [[nodiscard]] std::string status() const;
  // Does other work at the next look, without a wait.
  [[nodiscard]] bool is_pruning() const { return is_pruning_; }

 private:
  // Belongs to one connection.
  struct Session {
    Session(sqlite3* database, const Settings& settings)
        : taker(database), mass_changes(settings.deletions, settings.renames) {}
    Taker taker;
    MassChanges mass_changes;
  };
  struct Batch;

  bool hold_folders();
  bool open_store();
  [[nodiscard]] std::string node_of(const Link& link) const;
  void adopt();
  // The folder, and on a cluster those of the nodes in it.
  [[nodiscard]] std::vector<std::string> folders_in(const std::string& folder) const;
  bool take_all(const std::function<bool()>& should_stop);
  // `used` becomes the number of links that the transaction had room for.
  bool take(std::span<const Link> links, std::size_t& used);
  bool take_into(Batch& batch, const Link& link);
  bool finish(const Batch& batch);
  bool refuse(const std::string& name, const std::string& reason);
  bool prune_when_due();
  bool work(const std::function<bool()>& should_stop);
  bool fail();
  bool recover();
  void set_mark() const;

  Settings settings_;
  Store store_;
  std::optional<Session> session_;
  std::optional<history::Problem> failure_;  // of the connection, in this look
  Fd database_lock_, links_lock_, changes_;
  bool was_made_ = false;  // the folder of links, by this run
  bool is_adopted_ = false;
  bool is_pruning_ = false;
  uint64_t taken_ = 0;  // records, since the start
  std::string stuck_;   // a link of this look that could not be read or removed
  std::chrono::steady_clock::time_point next_prune_;
  TrustedClock clock_;
  sweeper::Trouble trouble_{service::Tone::kError};
  sweeper::Trouble waiting_{service::Tone::kInfo};
  sweeper::Trouble stuck_trouble_{service::Tone::kError};
  sweeper::Trouble group_{service::Tone::kWarning};
};

}  // namespace tavrix::historian
