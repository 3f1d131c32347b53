// SPDX-License-Identifier: LGPL-3.0-or-later
// tavrixctl events and audit: dump files as JSON lines, and the staging buffer.

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <type_traits>
#include <variant>
#include <vector>

#include "eventstore.h"
#include "tools/cli/help.hpp"
#include "tools/ctl/commands.hpp"
#include "tools/ctl/confirm.hpp"
#include "tools/ctl/library_log.hpp"
#include "tools/ctl/output.hpp"
#include "tools/ctl/shared_settings.hpp"
#include "tools/events/dump_reader.hpp"
#include "tools/events/record_fields.hpp"
#include "tools/text/counted.hpp"
#include "utils/staging/staging.hpp"

namespace tavrix::ctl {
namespace {

namespace fs = std::filesystem;

// The counts that --stats prints instead of lines.
struct Stats {
  std::map<std::string, uint64_t> by_type, by_user, by_minute;
  uint64_t records = 0;

  void add(const std::string& type, uint32_t uid, int64_t seconds) {
    ++records;
    ++by_type[type];
    ++by_user[std::to_string(uid)];
    ++by_minute[json::rfc3339(seconds / 60 * 60).value_or("unknown")];
  }
  void print_all(Json json) const {
    json["records"] = records;
    if (!by_type.empty()) json["by_type"] = by_type;
    json["by_user"] = by_user;
    json["by_minute"] = by_minute;
    print(json);
  }
};

// The name of a field in a line; the order of the columns is the order in the line. Fields without
// a column follow them, in the order and under the names of the .proto file, so a new field needs
// no change here.
struct Column {
  const char* field;
  const char* key;
};
using Columns = std::span<const Column>;

constexpr Column kEventColumns[] = {
    {"time_sec", "time_sec"},
    {"time_usec", "time_usec"},
    {"optype", "type"},
    {"fselem_type", "object"},
    {"path", "path"},
    {"rename_path", "rename_path"},
    {"uid", "uid"},
    {"tavrix_user", "user"},
    {"client_pid", "client_pid"},
};
constexpr Column kAuditColumns[] = {
    {"time_sec", "time_sec"},     {"path", "path"}, {"uid", "uid"},
    {"ip_address", "ip_address"}, {"size", "size"},
};

void set_value(Json& json, const std::string& key, const events::Field::Value& value) {
  std::visit(
      [&](const auto& plain) {
        if constexpr (std::is_same_v<std::decay_t<decltype(plain)>, std::string>) {
          set_bytes(json, key, plain);
        } else {
          json[key] = plain;
        }
      },
      value);
}

void print_record(Json json, const ProtobufCMessage& record, Columns columns) {
  std::vector<events::Field> fields = events::fields_of(record);
  for (const Column& column : columns) {
    const auto field = std::find_if(fields.begin(), fields.end(), [&](const events::Field& each) {
      return each.name == column.field;
    });
    if (field == fields.end()) continue;
    set_value(json, column.key, field->value);
    fields.erase(field);
  }
  for (const events::Field& field : fields) {
    // A new field may have the name of a column, as "type" is the column of "optype".
    set_value(json, json.contains(field.name) ? "field_" + field.name : field.name, field.value);
  }
  json::print_line(json);
}

// The destination of the records: the counts, or lines.
struct Sink {
  Stats* stats = nullptr;
  bool names_schema = false;  // the lines begin with the name of their schema

  [[nodiscard]] Json line(const char* schema, const std::optional<std::string>& time) const {
    Json json = names_schema ? document(schema) : Json::object();
    if (time) json["time"] = *time;
    return json;
  }
};

// Puts one payload into the sink; false when it is no record of the kind.
struct Kind {
  const char* schema;
  const char* folder;  // of the dump files, by the shipped settings
  bool (*decode)(std::string_view payload, const Sink& sink);
};
constexpr const char* kEventSchema = "events-decode";
constexpr const char* kAuditSchema = "audit-decode";

bool decode_event(std::string_view payload, const Sink& sink) {
  const events::Event event = events::unpack_event(payload);
  if (event == nullptr) return false;
  if (sink.stats != nullptr) {
    sink.stats->add(events::enum_name(vfsevent__op_type__descriptor, event->optype), event->uid,
                    event->time_sec);
  } else {
    const auto part = event->time_usec < 0 ? std::nullopt : std::optional(event->time_usec);
    const auto time = json::rfc3339(event->time_sec, part);
    print_record(sink.line(kEventSchema, time), event->base, kEventColumns);
  }
  return true;
}

bool decode_audit(std::string_view payload, const Sink& sink) {
  const events::Audit audit = events::unpack_audit(payload);
  if (audit == nullptr) return false;
  if (sink.stats != nullptr) {
    sink.stats->add("AUDIT", audit->uid, audit->time_sec);
  } else {
    print_record(sink.line(kAuditSchema, json::rfc3339(audit->time_sec)), audit->base,
                 kAuditColumns);
  }
  return true;
}

int decode_file(const std::string& path, const Kind& kind, const Sink& sink) {
  std::error_code none;
  if (fs::is_directory(path, none)) {
    complain("{} is a directory; give its dump files, or --follow {}", path, path);
    return kFailure;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    complain("{}: {}", path, std::strerror(errno));
    return kFailure;
  }
  const std::string bytes{std::istreambuf_iterator<char>(in), {}};
  events::DumpReader reader(bytes);
  uint64_t start = 0;
  while (const auto payload = reader.next()) {
    if (!kind.decode(*payload, sink)) {
      complain("{}: byte {}: the record is not a message of this kind", path, start);
      return kNo;
    }
    start = reader.offset();
  }
  if (reader.damage().empty()) return kYes;
  complain("{}: {}", path, reader.damage());
  return kNo;
}

volatile std::sig_atomic_t is_stopped = 0;

// Prints the dump files of a folder and then each new one. A dump file gets its name when it is
// whole, so every new name can be read at once.
int follow(const std::string& folder, const Kind& kind, const Sink& sink) {
  std::error_code error;
  fs::directory_iterator(folder, error);
  if (error) {
    complain("{}: {}", folder, error.message());
    return kFailure;
  }
  std::signal(SIGINT, [](int) { is_stopped = 1; });
  std::signal(SIGTERM, [](int) { is_stopped = 1; });
  std::set<std::string> seen;
  while (is_stopped == 0) {
    std::set<std::string> fresh;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder, none)) {
      const std::string name = entry.path().filename();
      if (name.starts_with(TAVRIX_DUMP_FILE_PREFIX) && seen.count(name) == 0) fresh.insert(name);
    }
    for (const std::string& name : fresh) {
      decode_file(fs::path(folder) / name, kind, sink);
      seen.insert(name);
    }
    std::fflush(stdout);
    usleep(200 * 1000);
  }
  return kYes;
}

struct DecodeArguments {
  std::vector<std::string> files;
  std::string folder;
  bool stats = false;
};

int decode_all(const Options& options, const DecodeArguments& arguments, const Kind& kind) {
  Sink sink{.names_schema = options.json};
  if (!arguments.folder.empty()) return follow(arguments.folder, kind, sink);
  if (arguments.files.empty()) {
    complain("give dump files, or --follow DIR");
    return kFailure;
  }
  Stats stats;
  if (arguments.stats) sink.stats = &stats;
  int worst = kYes;
  for (const std::string& file : arguments.files) {
    worst = std::max(worst, decode_file(file, kind, sink));
  }
  if (arguments.stats) {
    stats.print_all(options.json ? document(std::string(kind.schema) + "-stats") : Json::object());
  }
  return worst;
}

void add_decode(CLI::App& parent, DecodeArguments& arguments, const Kind& kind, Options& options,
                Action& action) {
  CLI::App* command = parent.add_subcommand(
      "decode", "Print dump files as JSON, one line per record (exit 1: a torn record)");
  command->add_option("FILE", arguments.files, "dump files")->type_name("FILE");
  command
      ->add_option("--follow", arguments.folder,
                   "print the dump files that come into a folder, until interrupted")
      ->type_name("DIR");
  command->add_flag("--stats", arguments.stats, "print counts instead");
  command->callback([&action, &options, &arguments, kind] {
    action = [&options, &arguments, kind] { return decode_all(options, arguments, kind); };
  });
  const std::string name = "tavrixctl " + parent.get_name() + " decode ";
  const std::string folder = kind.folder;
  cli::add_examples(*command,
                    {{name + folder + "/pending_*", "all records that wait for the agent"},
                     {name + "--stats " + folder + "/pending_*", "how many of which kind"},
                     {name + "--follow " + folder, "each new record, until Ctrl-C"},
                     {"tavrixctl --json " + parent.get_name() + " decode " + folder + "/pending_*",
                      "with the name of its schema in each line"}});
  cli::add_examples(parent,
                    {{name + folder + "/pending_*", "all records that wait for the agent"}});
}

// --- the staging buffer --------------------------------------------------------------------------

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

void add_events_commands(CLI::App& app, Options& options, Action& action) {
  static DecodeArguments event_arguments, audit_arguments;
  CLI::App* events = app.add_subcommand("events", "Events: dump files and the staging buffer");
  events->require_subcommand(1);
  add_decode(*events, event_arguments, {kEventSchema, "/tavrix/.conf/staging", decode_event},
             options, action);

  CLI::App* audit = app.add_subcommand("audit", "Audit records");
  audit->require_subcommand(1);
  add_decode(*audit, audit_arguments, {kAuditSchema, "/tavrix/.conf/auditing", decode_audit},
             options, action);

  CLI::App* buffer = events->add_subcommand("buffer", "The staging buffer");
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

const Command registered(50, add_events_commands);

}  // namespace
}  // namespace tavrix::ctl
