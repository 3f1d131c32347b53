// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl events buffer: the staging buffer and its semaphore.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <cerrno>
#include <cstring>

#include "eventstore.h"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/confirm.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/shared_settings.hpp"
#include "tools/text/counted.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix::ctl {
namespace {

int show_buffer(const Options& options) {
  const int set = semget(ftok(TAVRIX_STAGING_KEY_PATH, TAVRIX_STAGING_SEMAPHORE_KEY_ID), 0, 0);
  const StagingAttachment buffer(get_eventstore_staging_buffer());
  Json json = document("events-buffer-show");
  json["exists"] = static_cast<bool>(buffer);
  json["semaphore"] = set != -1;
  if (set != -1) {
    json["semaphore_free"] = semctl(set, 0, GETVAL) == 1;
    json["last_process"] = semctl(set, 0, GETPID);
    json["waiting"] = semctl(set, 0, GETNCNT);
  }
  if (buffer) {
    json["bytes"] = global_params[PARAM_STAGING_BUFFER_SIZE].value.intval;
    json["used"] = buffer->next_offset;
    json["records"] = buffer->num_records;
    json["threshold"] = staging_fill_threshold();
  }
  if (options.json) {
    print(json);
  } else if (!buffer) {
    fmt::print("there is no staging buffer of the size in the settings\n");
  } else {
    fmt::print("{}, {} of {} used; writers flush at {}\n",
               text::counted(json["records"].get<uint32_t>(), "record"),
               human_bytes(json["used"].get<uint32_t>()),
               human_bytes(json["bytes"].get<uint32_t>()),
               human_bytes(json["threshold"].get<uint32_t>()));
  }
  if (!options.json) {
    if (set == -1) {
      fmt::print("there is no semaphore\n");
    } else {
      fmt::print("the semaphore is {}, last used by process {}, {} waiting\n",
                 json["semaphore_free"].get<bool>() ? "free" : "held",
                 json["last_process"].get<int>(), json["waiting"].get<int>());
    }
  }
  return buffer && set != -1 ? kYes : kNo;
}

int create_buffer() {
  if (create_eventstore_staging_semaphore() != 1) {
    complain("cannot make the semaphore: {}",
             errno == EEXIST ? "there is one already" : std::strerror(errno));
    return kFailure;
  }
  if (create_staging_buffer() == 0) return kYes;
  complain("cannot make the segment: {}", std::strerror(errno));
  return kFailure;
}

// Flushes as a disconnecting client does, because that context tolerates the most failures: records
// that cannot be flushed stay in the buffer.
int flush_buffer() {
  if (!StagingAttachment(get_eventstore_staging_buffer())) {
    complain("there is no staging buffer of the size in the settings: nothing to flush");
    return kFailure;
  }
  if (flush_staging_buffer(FB_CTX_DISCON) == 1) return kYes;
  complain("the records could not be flushed and stay in the buffer");
  return kFailure;
}

int remove_buffer(const Confirmation& confirmation) {
  if (const auto refusal = confirmation.refusal(
          "Events in the staging buffer and new ones are lost. Remove the buffer?");
      refusal) {
    return *refusal;
  }
  const bool semaphore = destroy_eventstore_staging_buffer_semaphore() == 1;
  const bool segment = remove_staging_buffers() == 0;
  if (!segment) complain("no segment of 20800 bytes or more was found");
  if (!semaphore) complain("there is no semaphore");
  return semaphore && segment ? kYes : kFailure;
}

}  // namespace

void add_events_buffer_commands(CLI::App& events, Options& options, Action& action) {
  CLI::App* buffer = events.add_subcommand("buffer", "The staging buffer");
  buffer->require_subcommand(1);
  const auto add = [&](const char* name, const char* help, const char* purpose,
                       const std::function<int()>& work) {
    CLI::App* command = buffer->add_subcommand(name, help);
    cli::add_examples(*command, {{std::string("tavrixctl events buffer ") + name, purpose}});
    command->callback([&action, &options, work] {
      action = [&options, work] {
        if (!use_shared_settings()) return kFailure;
        if (!options.verbose) set_debug_level(-1);
        return work();
      };
    });
    return command;
  };
  static Confirmation confirmation;
  CLI::App* show =
      add("show", "Show fill level, records and semaphore (exit 1: something is missing)",
          "how much waits for the next flush?", [&options] { return show_buffer(options); });
  add("create", "Make the semaphore and the segment, as the sweeper does",
      "make what is missing, if no sweeper runs", create_buffer);
  add("flush", "Write the records to a dump file", "hand the records to the agent now",
      flush_buffer);
  CLI::App* remove = add("remove", "Remove the semaphore and the segment, with its records",
                         "asks first", [] { return remove_buffer(confirmation); });
  confirmation.add_to(*remove);
  cli::add_examples(*show, {{"tavrixctl events buffer show", "how much waits for the next flush?"},
                            {"tavrixctl --json events buffer show", "the same, for a program"}});
  cli::add_examples(
      *remove, {{"tavrixctl events buffer remove", "asks first"},
                {"tavrixctl events buffer remove --yes", "in a script, where nobody can answer"}});
  cli::add_examples(*buffer,
                    {{"tavrixctl events buffer show", "how much waits for the next flush?"}});
}

}  // namespace tavrix::ctl
