// SPDX-License-Identifier: LGPL-3.0-or-later
// Packs an event of any content and reads it back.

#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz/target.hpp"
#include "internal/scoped.hpp"
#include "tavrix_vfs_utils.h"
#include "tools/events/dump_reader.hpp"
#include "vfs_common.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using tavrix::fuzz::require;
  if (size < 9) return 0;
  VFSEvent event = VFSEVENT__INIT;
  std::memcpy(&event.uid, data, 4);
  std::memcpy(&event.time_sec, data + 4, 4);
  const std::string text(reinterpret_cast<const char*>(data + 8), size - 8);
  const std::string path = text.substr(0, text.find('\0'));
  const std::string rest = path.size() < text.size() ? text.substr(path.size() + 1) : "";
  event.path = const_cast<char*>(path.c_str());
  if (!rest.empty()) event.rename_path = const_cast<char*>(rest.c_str());
  const tavrix::Malloced<staging_data_s> record(create_staging_data_buf(&event));
  // Not recorded: the superuser's events, and those of the reserved user, which is nobody here.
  require((record == nullptr) == (event.uid == 0 || event.uid == reserved_user_uid),
          "events of users are recorded");
  if (record == nullptr) return 0;
  const std::string_view bytes(reinterpret_cast<const char*>(record.get()), record->size + 8);
  tavrix::events::DumpReader reader(bytes);
  const auto payload = reader.next();
  require(payload.has_value(), "a record is framed");
  const auto back = tavrix::events::unpack_event(*payload);
  require(back && back->path == path && back->uid == event.uid && back->time_sec == event.time_sec,
          "an event comes back");
  require((back->rename_path != nullptr) == !rest.empty(), "optional fields come back");
  return 0;
}
