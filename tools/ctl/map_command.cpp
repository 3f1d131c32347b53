// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl map: puts the commands below it together, and has map remove.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>

#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/confirm.hpp"
#include "tools/ctl/map_view.hpp"
#include "tools/ctl/output.hpp"
#include "tools/mapload/recovery.hpp"

namespace tavrix::ctl {
namespace {

bool remove_table(const TableState& table) {
  if (table.shmid == -1) return true;
  if (shmctl(table.shmid, IPC_RMID, nullptr) == 0) return true;
  complain("cannot remove the table of key 0x{:x}: {}", table.key, std::strerror(errno));
  return false;
}

int remove_stale() {
  mapload::Report report;
  const int removed = mapload::remove_stale_tables(report);
  tell(report);
  if (removed == 0) complain("no table is stale: nothing to remove");
  return removed < 0 ? kFailure : kYes;
}

int remove(bool only_stale, const Confirmation& confirmation) {
  if (!only_stale) {
    if (const auto refusal =
            confirmation.refusal("Nobody can see the share without a map. Remove the current one?");
        refusal) {
      return *refusal;
    }
  }
  // With the lock no import is running: one would lose its table, or publish a map afterwards.
  const Fd lock = lock_or_complain();
  if (!lock) return kFailure;
  if (only_stale) return remove_stale();
  const MapState state = map_state();
  bool good = remove_table(state.tables[0]);
  good = remove_table(state.tables[1]) && good;
  if (state.set != -1 && semctl(state.set, 0, IPC_RMID) == -1) {
    complain("cannot remove the semaphores: {}", std::strerror(errno));
    good = false;
  }
  return good ? kYes : kFailure;
}

void add_map_commands(CLI::App& app, Options& options, Action& action) {
  CLI::App* map = app.add_subcommand("map", "The permission map");
  map->require_subcommand(1);
  add_map_check_commands(*map, options, action);
  add_map_import_commands(*map, options, action);
  add_map_inspect_commands(*map, options, action);
  add_map_find_command(*map, options, action);
  add_map_diff_command(*map, options, action);
  add_map_history_commands(*map, options, action);
  add_map_refused_command(*map, options, action);

  static bool only_stale = false;
  CLI::App* remove_command = map->add_subcommand(
      "remove", "Remove the tables and the semaphores; readers keep what they have attached");
  remove_command->add_flag("--stale", only_stale,
                           "only the table that is not the published one, left by a failed import");
  static Confirmation confirmation;
  confirmation.add_to(*remove_command);
  remove_command->callback([&action] { action = [] { return remove(only_stale, confirmation); }; });

  cli::add_examples(*map,
                    {{"tavrixctl map info", "the map in force"},
                     {"tavrixctl map lint size.json data.json", "are the files fit for an import?"},
                     {"tavrixctl map acl Shared/Team", "who may do what in a folder"}});
  cli::add_examples(*remove_command,
                    {{"tavrixctl map remove --stale", "the table that a failed import left"},
                     {"tavrixctl map remove", "the map in force; asks first"},
                     {"tavrixctl map remove --yes", "in a script, where nobody can answer"}});
}

const Command registered(20, add_map_commands);

}  // namespace
}  // namespace tavrix::ctl
